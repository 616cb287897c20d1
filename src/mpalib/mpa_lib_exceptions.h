// Exceptions of the MPA library's registry and listener.
#ifndef ZEL_MPALIB_MPA_LIB_EXCEPTIONS_H_
#define ZEL_MPALIB_MPA_LIB_EXCEPTIONS_H_

#include "util/MpaException.h"

namespace ZelMpa {

// The registry already holds its maximum of clients, or the descriptor is
// beyond what select() can watch.
class RegistrySizeError : public MpaException {
 public:
  RegistrySizeError() : MpaException("Number of allowed clients exceeded") {}
};

// A listener loop is already running.
class ExistingSelect : public MpaException {
 public:
  ExistingSelect() : MpaException("Existing listener loop") {}
};

// The listener was started without a registry to watch.
class NoRegistryError : public MpaException {
 public:
  NoRegistryError() : MpaException("Listener could not find a registry") {}
};

}  // namespace ZelMpa

#endif  // ZEL_MPALIB_MPA_LIB_EXCEPTIONS_H_
