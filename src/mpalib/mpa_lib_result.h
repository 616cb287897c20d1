// Result codes of the MPA library. Operations that return an int give 0 on
// success (or a cookie id >= 0 where they name a connection), otherwise one of
// these. The values are part of the library's interface: the application
// logs them and compares with them.
#ifndef ZEL_MPALIB_MPA_LIB_RESULT_H_
#define ZEL_MPALIB_MPA_LIB_RESULT_H_

namespace ZelMpa {

constexpr int kMpaOk = 0;
// General failure: connection type not supported, content type or routing
// key missing, a refused append.
constexpr int kMpaFailure = -1;
constexpr int kMpaOutOfMemory = -2000;
// The connection to the MPA failed in Init; or no client has the cookie of a
// message to send.
constexpr int kMpaSocketError = -2001;
constexpr int kMpaInvalidCookie = -2002;
// A null or invalid argument, or an invalid custom port.
constexpr int kMpaInvalidArgument = -2003;
// No data to send, or a null chunk.
constexpr int kMpaNoData = -2004;
constexpr int kMpaSendFailed = -2005;
constexpr int kMpaInvalidLength = -2006;
// An invalid client or connection type, or an unsupported operation.
constexpr int kMpaUnsupported = -2010;
// A document that is not finished or carries error flags; a BSON exception
// while registering.
constexpr int kMpaBadDocument = -2012;
// The descriptor is already in the registry.
constexpr int kMpaDuplicateClient = -2015;
constexpr int kMpaClientNotFound = -2016;
constexpr int kMpaNotStarted = -2018;
// A read returned nothing.
constexpr int kMpaNothingRead = -2020;
constexpr int kMpaTooManyClients = -2022;
constexpr int kMpaInvalidPayload = -2023;
constexpr int kMpaNoEventLoop = -2024;
// The client object could not be made.
constexpr int kMpaNoClient = -2025;
constexpr int kMpaNoCallback = -2026;
// Any other library exception caught while making a client.
constexpr int kMpaLibraryException = -2101;

}  // namespace ZelMpa

#endif  // ZEL_MPALIB_MPA_LIB_RESULT_H_
