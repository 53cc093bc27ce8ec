#include <csignal>

#include "tarnsvc/main.h"

int main(int count, char** arguments) {
  // A peer that goes away must show as a failed write, never end the process.
  std::signal(SIGPIPE, SIG_IGN);
  _maind(count, arguments);
  return 1;
}
