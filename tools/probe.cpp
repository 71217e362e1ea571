// A program to supervise. It starts without any descriptor, so it prints nothing and does not rely on
// descriptors 0 to 2.
//   probe run             stays
//   probe report          logs its signal masks and descriptors in one line, then stays
//   probe daemonize       detaches itself and stays
//   probe burn            keeps a CPU busy
//   probe exit N          ends with status N

#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

// "SigPnd:<tab>0 SigBlk:<tab>0 SigIgn:<tab>0 SigCgt:<tab>0 fds:", then the descriptors, a blank before each.
static std::string given()
{
    std::string text;
    std::string line;
    for (std::ifstream status("/proc/self/status"); std::getline(status, line);) {
        text += line.starts_with("Sig") && !line.starts_with("SigQ") ? line + " " : "";
    }
    text += "fds:";
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        if (!read_symlink(entry).native().ends_with("/fd")) {  // the one that this loop opened
            text += " " + entry.path().filename().native();
        }
    }
    return text;
}

int main(int argc, char** argv)
{
    const std::string role = argc > 1 ? argv[1] : "run";
    if (role == "exit" && argc > 2) {
        return static_cast<int>(strtol(argv[2], nullptr, 10));
    }
    if (role == "report") {
        const std::string text = given();
        openlog("probe", LOG_PID, LOG_USER);
        syslog(LOG_INFO, "%s", text.c_str());
    }
    if (role == "daemonize" && (fork() != 0 || setsid() < 0)) {
        return 0;
    }
    for (;;) {
        role == "burn" ? getppid() : pause();
    }
}
