// The smallest C++ program that uses libstdc++.so, as a start-up baseline for process_startup.
#include <cstdio>
#include <string>

int main(int argc, char**) {
  const std::string text(static_cast<std::size_t>(argc) + 4, 'x');
  std::puts(text.c_str());
  return 0;
}
