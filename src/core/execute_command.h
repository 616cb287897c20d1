// The one way the agent runs external commands: through the shell, with
// popen(3).
//
// Both functions are stateless and may run on several threads at once (the
// client's delivering thread and the monitor thread do so). Each blocks until
// the command has exited.
//
// Result rules, shared by both:
//   -1   the command could not be started; the text argument then holds
//        "popen failed: <strerror text>".
//   else the command's exit code, (status >> 8) & 255. A child killed by a
//        signal therefore reads as 0, and so does a failure to reap the child
//        (logged with "errorCode:MPA30010"). A command the shell cannot find
//        gives the shell's 127.
// The command's standard error is not captured unless the command redirects
// it itself ("cmd 2>&1").
#ifndef DORN_CORE_EXECUTE_COMMAND_H_
#define DORN_CORE_EXECUTE_COMMAND_H_

#include <string>

namespace ZelDorn {

// Runs `command` and collects its standard output, whole lines of any length
// included, in `output` (cleared first once the command has started).
int ExecuteCommand(const std::string& command, std::string& output);

// Runs `command` with `input` written to its standard input, which is closed
// afterwards. `error` is cleared once the command has started and is only
// filled when it could not be started. A command that exits without reading
// all of its input does not harm the caller (no SIGPIPE); the loss is logged
// at WARN.
int ExecuteCommandWithInput(const std::string& command, const std::string& input,
                            std::string& error);

}  // namespace ZelDorn

#endif  // DORN_CORE_EXECUTE_COMMAND_H_
