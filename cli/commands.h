#ifndef COMMANDS_H
#define COMMANDS_H

struct Arguments;
class Session;

// Starts the command; from then on the session's end is its result. The event loop must be running.
void startCommand(const Arguments &arguments, Session &session);

#endif // COMMANDS_H
