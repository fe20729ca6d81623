// cameraframeboost: for those who integrate the library, and look after it in the field.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <string>

#include "tools/command/command.h"
#include "tools/command/subcommands.h"

int main(int argc, char** argv) {
    // A standard stream that is closed stays unusable: no file that is opened takes its place.
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) == -1) {
            open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
    // A reader that goes away shows as a write that fails, and so does a limit of files' sizes.
    std::signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): cannot fail for these signals.
    std::signal(SIGXFSZ, SIG_IGN);  // NOLINT(cert-err33-c)
    try {
        return tools::RunCommand({argv + 1, argv + argc});
    } catch (const tools::CommandError& error) {
        tools::Complain(error.what());
        return error.Status();
    } catch (const std::exception& error) {
        tools::Complain(std::string("cameraframeboost: error: ") + error.what());
    }
    return tools::BAD_INPUT;
}
