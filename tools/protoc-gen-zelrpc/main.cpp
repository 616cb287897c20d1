// protoc-gen-zelrpc: the protoc plugin that writes the RPC glue of every
// service in a schema. For foo/bar.proto it writes foo/bar.zelrpc.pb.h and
// foo/bar.zelrpc.pb.cc, in the schema's package namespace, with one class
// per service S:
//
//   class S {
//    public:
//     static const char kServiceName[];          // "<package>.S"
//     static const ::zel::rpc::RpcMethod kMMethod; // one per method M
//     class Stub;      // a call function per method, on a channel
//     class Service;   // a virtual function per method, to override
//   };
//
// A method's kind comes from its options client_streaming (50001) and
// server_streaming (50002). The schema's stream keyword counts as well, so
// that one schema can also serve a framework that knows only the keyword
// (the benchmark's yardstick).
//
//   protoc --plugin=protoc-gen-zelrpc=<this> --zelrpc_out=<dir> -I... x.proto
//
// With --zelrpc_out=namespace=<name>:<dir> the classes go into a namespace
// <name> within the package's, beside another framework's of the same names.
#include <cctype>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/compiler/code_generator.h>
#include <google/protobuf/compiler/plugin.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/printer.h>
#include <google/protobuf/io/zero_copy_stream.h>
#include <google/protobuf/unknown_field_set.h>

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using google::protobuf::io::Printer;

constexpr int kClientStreamingOption = 50001;
constexpr int kServerStreamingOption = 50002;

// The method options are extensions this program does not link, so they
// arrive as unknown fields of MethodOptions.
bool OptionSet(const MethodDescriptor& method, int number) {
  const google::protobuf::MethodOptions& options = method.options();
  const google::protobuf::UnknownFieldSet& unknown =
      options.GetReflection()->GetUnknownFields(options);
  bool set = false;
  for (int i = 0; i < unknown.field_count(); ++i) {
    const google::protobuf::UnknownField& f = unknown.field(i);
    if (f.number() == number && f.type() == google::protobuf::UnknownField::TYPE_VARINT) {
      set = f.varint() != 0;  // the last occurrence wins, as for any scalar
    }
  }
  return set;
}

bool ClientStreams(const MethodDescriptor& m) {
  return OptionSet(m, kClientStreamingOption) || m.client_streaming();
}
bool ServerStreams(const MethodDescriptor& m) {
  return OptionSet(m, kServerStreamingOption) || m.server_streaming();
}

const char* MethodType(const MethodDescriptor& m) {
  if (ClientStreams(m)) return ServerStreams(m) ? "RMT_BIDI_STREAMING" : "RMT_CLIENT_STREAMING";
  return ServerStreams(m) ? "RMT_SERVER_STREAMING" : "RMT_SIMPLE";
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// The C++ name of a message: its package as namespaces, nested types joined
// by '_' as protobuf's C++ code names them.
std::string ClassName(const Descriptor& d) {
  std::string name = d.name();
  for (const Descriptor* outer = d.containing_type(); outer; outer = outer->containing_type()) {
    name = outer->name() + "_" + name;
  }
  const std::string package = d.file()->package();
  return (package.empty() ? "" : "::" + Replace(package, ".", "::")) + "::" + name;
}

std::string Stem(const std::string& protoName) {
  return protoName.substr(0, protoName.size() - (protoName.size() > 6 ? 6 : 0));
}

std::vector<std::string> Split(const std::string& text, char sep) {
  std::vector<std::string> parts;
  std::string part;
  for (char c : text) {
    if (c == sep) {
      parts.push_back(part);
      part.clear();
    } else {
      part += c;
    }
  }
  if (!part.empty()) parts.push_back(part);
  return parts;
}

// The glue's namespace: the package's, and within it the one the parameter
// "namespace=<name>" asks for, if any.
std::string g_extraNamespace;

std::vector<std::string> Namespaces(const FileDescriptor& file) {
  std::vector<std::string> parts = Split(file.package(), '.');
  if (!g_extraNamespace.empty()) parts.push_back(g_extraNamespace);
  return parts;
}

void OpenNamespaces(Printer& p, const FileDescriptor& file) {
  for (const std::string& ns : Namespaces(file)) p.Print("namespace $ns$ {\n", "ns", ns);
}
void CloseNamespaces(Printer& p, const FileDescriptor& file) {
  std::vector<std::string> parts = Namespaces(file);
  for (auto it = parts.rbegin(); it != parts.rend(); ++it) {
    p.Print("}  // namespace $ns$\n", "ns", *it);
  }
}

std::map<std::string, std::string> Vars(const MethodDescriptor& m) {
  return {{"method", m.name()},
          {"full", m.full_name()},
          {"type", MethodType(m)},
          {"req", ClassName(*m.input_type())},
          {"resp", ClassName(*m.output_type())},
          {"service", m.service()->full_name()}};
}

void Header(Printer& p, const FileDescriptor& file, const std::string& stem) {
  std::string guard = "ZEL_GENERATED_" + stem + "_ZELRPC_PB_H_";
  for (char& c : guard) c = std::isalnum(static_cast<unsigned char>(c)) ? std::toupper(c) : '_';
  p.Print(
      "// Generated by protoc-gen-zelrpc from $file$. Do not edit.\n"
      "#ifndef $guard$\n#define $guard$\n\n"
      "#include \"$stem$.pb.h\"\n"
      "#include \"cpp/lib/rpc/call_api.h\"\n\n",
      "file", file.name(), "guard", guard, "stem", stem);
  OpenNamespaces(p, file);
  for (int s = 0; s < file.service_count(); ++s) {
    const ServiceDescriptor& service = *file.service(s);
    p.Print("\nclass $name$ {\n public:\n  static const char kServiceName[];\n", "name",
            service.name());
    for (int i = 0; i < service.method_count(); ++i) {
      p.Print("  static const ::zel::rpc::RpcMethod k$method$Method;\n", "method",
              service.method(i)->name());
    }
    p.Print(
        "\n  class Stub : public ::zel::rpc::StubBase {\n   public:\n"
        "    explicit Stub(::zel::rpc::ChannelPtr channel) : StubBase(std::move(channel)) {}\n"
        "    static const char* ServiceName() { return kServiceName; }\n");
    for (int i = 0; i < service.method_count(); ++i) {
      const MethodDescriptor& m = *service.method(i);
      if (ClientStreams(m)) {
        p.Print(Vars(m),
                "    ::zel::rpc::StreamWriterPtr<$req$> $method$(\n"
                "        const ::zel::rpc::ClientContext& context,\n"
                "        ::zel::rpc::CallObserverPtr<$resp$> observer) {\n"
                "      return StartStream_<$req$, $resp$>(k$method$Method, context, "
                "std::move(observer));\n    }\n");
      } else {
        p.Print(Vars(m),
                "    ::zel::rpc::CallHandlePtr<$resp$> $method$(\n"
                "        const ::zel::rpc::ClientContext& context, const $req$& request,\n"
                "        ::zel::rpc::CallObserverPtr<$resp$> observer) {\n"
                "      return StartUnary_<$req$, $resp$>(k$method$Method, context, request, "
                "std::move(observer));\n    }\n");
      }
    }
    p.Print(
        "  };\n\n  class Service : public ::zel::rpc::ServiceBase {\n   public:\n"
        "    Service();\n");
    for (int i = 0; i < service.method_count(); ++i) {
      const MethodDescriptor& m = *service.method(i);
      if (ClientStreams(m)) {
        p.Print(Vars(m),
                "    // Gives the observer of the requests; by default the call ends\n"
                "    // with UNIMPLEMENTED.\n"
                "    virtual ::zel::rpc::CallObserverPtr<$req$> $method$(\n"
                "        const ::zel::rpc::ServerContext& context,\n"
                "        const ::zel::rpc::StreamWriterPtr<$resp$>& writer);\n");
      } else {
        p.Print(Vars(m),
                "    // By default the call ends with UNIMPLEMENTED.\n"
                "    virtual void $method$(const ::zel::rpc::ServerContext& context, "
                "const $req$& request,\n"
                "        const ::zel::rpc::StreamWriterPtr<$resp$>& writer);\n");
      }
    }
    p.Print("  };\n};\n");
  }
  p.Print("\n");
  CloseNamespaces(p, file);
  p.Print("\n#endif  // $guard$\n", "guard", guard);
}

void Source(Printer& p, const FileDescriptor& file, const std::string& stem) {
  p.Print("// Generated by protoc-gen-zelrpc from $file$. Do not edit.\n"
          "#include \"$stem$.zelrpc.pb.h\"\n\n",
          "file", file.name(), "stem", stem);
  OpenNamespaces(p, file);
  for (int s = 0; s < file.service_count(); ++s) {
    const ServiceDescriptor& service = *file.service(s);
    p.Print("\nconst char $name$::kServiceName[] = \"$full$\";\n", "name", service.name(), "full",
            service.full_name());
    for (int i = 0; i < service.method_count(); ++i) {
      std::map<std::string, std::string> v = Vars(*service.method(i));
      v["name"] = service.name();
      p.Print(v,
              "const ::zel::rpc::RpcMethod $name$::k$method$Method{\"$full$\", \"$service$\",\n"
              "                                                  ::zel::rpc::$type$};\n");
    }
    p.Print("\n$name$::Service::Service() : ServiceBase(kServiceName) {\n", "name",
            service.name());
    for (int i = 0; i < service.method_count(); ++i) {
      p.Print(Vars(*service.method(i)),
              "  AddMethod_<Service, $req$, $resp$>(k$method$Method, &Service::$method$);\n");
    }
    p.Print("}\n");
    for (int i = 0; i < service.method_count(); ++i) {
      const MethodDescriptor& m = *service.method(i);
      std::map<std::string, std::string> v = Vars(m);
      v["name"] = service.name();
      if (ClientStreams(m)) {
        p.Print(v,
                "\n::zel::rpc::CallObserverPtr<$req$> $name$::Service::$method$(\n"
                "    const ::zel::rpc::ServerContext&, const ::zel::rpc::StreamWriterPtr<$resp$>& "
                "writer) {\n"
                "  writer->Done(::zel::rpc::RpcStatus(::zel::rpc::UNIMPLEMENTED));\n"
                "  return std::make_shared<::zel::rpc::CallObserver<$req$>>();\n}\n");
      } else {
        p.Print(v,
                "\nvoid $name$::Service::$method$(const ::zel::rpc::ServerContext&, const $req$&,\n"
                "    const ::zel::rpc::StreamWriterPtr<$resp$>& writer) {\n"
                "  writer->Done(::zel::rpc::RpcStatus(::zel::rpc::UNIMPLEMENTED));\n}\n");
      }
    }
  }
  p.Print("\n");
  CloseNamespaces(p, file);
}

class ZelRpcGenerator : public google::protobuf::compiler::CodeGenerator {
 public:
  bool Generate(const FileDescriptor* file, const std::string& parameter,
                google::protobuf::compiler::GeneratorContext* context,
                std::string* /*error*/) const override {
    const std::string key = "namespace=";
    g_extraNamespace = parameter.rfind(key, 0) == 0 ? parameter.substr(key.size()) : "";
    // Every schema gets its pair, with or without services, so that a build
    // can name the outputs before it knows the contents.
    const std::string stem = Stem(file->name());
    {
      std::unique_ptr<google::protobuf::io::ZeroCopyOutputStream> out(
          context->Open(stem + ".zelrpc.pb.h"));
      Printer p(out.get(), '$');
      Header(p, *file, stem);
    }
    {
      std::unique_ptr<google::protobuf::io::ZeroCopyOutputStream> out(
          context->Open(stem + ".zelrpc.pb.cc"));
      Printer p(out.get(), '$');
      Source(p, *file, stem);
    }
    return true;
  }
};

}  // namespace

int main(int argc, char* argv[]) {
  ZelRpcGenerator generator;
  return google::protobuf::compiler::PluginMain(argc, argv, &generator);
}
