#pragma once

// SIGHUP, SIGINT and SIGTERM ask a command to end. The first of each kind is noted, so that the
// command can end in good order; the next one ends the program at once. A signal that whoever
// started the program ignores stays ignored, as under nohup.

// From the first call on signals are noted.
void NoteSignals();

// The number of the signal that came last, 0 while there is none.
int NotedSignal();

// Readable from the first signal on, for a command that waits in select() or poll().
int SignalDescriptor();

// Added to a signal's number, the status that shells give to a program that the signal ended.
constexpr int kSignalStatus = 128;

// Ends the program with that status, if a signal was noted.
void ExitOnSignal();
