// The client: the same executable, started with an option. It sends one request over the control socket,
// prints the reply's text and exits. Single-threaded; knows nothing of the server's state.

#pragma once

// Runs the client with main's arguments and ends the process: with status 0, also after a failed exchange,
// or with 1 when there is no request to send or no server to connect to.
[[noreturn]] void halvo_handle_options(int argc, char** argv);

// Prints the help text on standard output.
void halvo_help();

// Returns a descriptor connected to the server, or -1 with a message.
int create_socket_and_connect();
