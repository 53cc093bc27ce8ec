#pragma once

// The drive process: its start, its wait and its teardown, all on the main thread.

// Runs the drive process from the pipe id and the label of its command line to its end.
void StartChild(char* pipe_id, char* label);

// Prepares the drive's own, empty cache folder and starts the cache and the work queue.
void StartCache(char* label);

// Opens the log under a name made of the label and lends the logger to the libraries. Without a log
// the process runs all the same.
void InitLog_Child(char* label);
