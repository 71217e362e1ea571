// The client: the same executable, started with an option. It sends one request over the control socket,
// prints the reply's text and exits.
//
// It talks only to a server that runs as root or as the client's own user, since everybody may create files
// where the socket lies. It is single-threaded and knows nothing of the server's state.

#pragma once

// Runs the client with main's arguments and ends the process. The status is 0, also after a failed exchange,
// or 1 when there is no request to send, no server to connect to, or no memory. Single-threaded.
[[noreturn]] void halvo_handle_options(int argc, char** argv);

// Prints the help text on standard output. Single-threaded.
void halvo_help();

// Returns a descriptor connected to the server, which the caller closes, or -1 after a message to the log
// and to standard output. See unix(7). Single-threaded.
int create_socket_and_connect();

// Returns true when a daemon serves the control socket, which makes the socket the lock against a second
// daemon. A lock file would also refuse daemons that share nothing, such as those in containers. Waits up
// to 10 seconds for a server that does not answer. Main thread, before the server is up.
bool halvo_is_daemon_running();
