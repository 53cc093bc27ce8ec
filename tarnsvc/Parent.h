#pragma once

// The service process: its start, its loop and its stop. Everything runs on the main thread.

inline constexpr int kBasePort = 49879;

// Runs the service until ProcessStarted is cleared. The pointer is not used.
void StartParent(void* reserved);

// Creates the data folder and, when missing, the cache settings file and the default cache folder.
void Init();

// Opens the log; without it the service runs all the same.
void InitLog();

// Listens on the base port or the next free one and records it for clients. False: not listening.
bool StartServer();
void StopServer();

// Writes the port record, which client applications read.
void write_port(int port);

void sigterm_handler(int signal_number);
