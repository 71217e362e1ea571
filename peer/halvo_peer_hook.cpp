#include "halvo_peer_hook.h"

#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstring>

#include "halvo_peer_report.h"

// Starts the command, which is looked up in PATH. It gets the signal mask that this program was started
// with, and the default action of SIGPIPE, which this program ignores. Returns 0, or an error number. Not
// fork(2), which would not tell the parent why an exec failed. See posix_spawn(3).
static int spawn(halvo_peer_hook_st* hook)
{
    posix_spawnattr_t attributes;
    sigset_t reset;
    sigemptyset(&reset);
    sigaddset(&reset, SIGPIPE);
    int failure = posix_spawnattr_init(&attributes);
    if (failure != 0) {
        return failure;
    }
    posix_spawnattr_setsigmask(&attributes, &hook->mask);
    posix_spawnattr_setsigdefault(&attributes, &reset);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    failure = posix_spawnp(&hook->pid, hook->command[0], nullptr, &attributes, hook->command.data(), environ);
    posix_spawnattr_destroy(&attributes);
    return failure;
}

void halvo_peer_tell(halvo_peer_hook_st* hook, halvo_peer_state_en state)
{
    if (hook->command.empty() || hook->pid != 0 || hook->told == state || state == PEER_UNDECIDED) {
        return;
    }
    hook->told = state;  // even if the start fails: one message is enough
    hook->command[hook->command.size() - 2] = const_cast<char*>(halvo_peer_word(state));
    const int failure = spawn(hook);
    if (failure != 0) {
        hook->pid = 0;  // posix_spawn(3) leaves it undefined
        halvo_peer_say(SD_ERR, "%s cannot be run: %s", hook->command[0], strerror(failure));
    }
}

void halvo_peer_reap(halvo_peer_hook_st* hook)
{
    int status = 0;
    // Only the command is reaped: this program may have inherited other children through its exec.
    if (hook->pid == 0 || waitpid(hook->pid, &status, WNOHANG) != hook->pid) {
        return;
    }
    hook->pid = 0;
    if (WIFSIGNALED(status)) {
        halvo_peer_say(SD_WARNING, "%s %s was ended by signal %d", hook->command[0],
                       halvo_peer_word(hook->told), WTERMSIG(status));
    } else if (WEXITSTATUS(status) != 0) {
        halvo_peer_say(SD_WARNING, "%s %s ended with status %d", hook->command[0],
                       halvo_peer_word(hook->told), WEXITSTATUS(status));
    }
}
