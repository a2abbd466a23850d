// A daemon whose fourth call fails, for tests of other programs. Prints its port, and runs until
// its standard input ends.

#include <support/FakeDaemon.h>

#include <atomic>
#include <iostream>

int main() {
  support::FakeDaemon daemon;
  std::atomic<int> calls{0};
  daemon.handlerIs([&](auto, const auto&, auto*) {
    return ++calls == 4 ? support::FakeDaemon::Answer{14, "out of order", ""}
                        : support::FakeDaemon::Answer();
  });
  std::cout << daemon.port() << std::endl;
  while (std::cin.get() != std::char_traits<char>::eof()) {
  }
}
