// A program outside the project that uses the installed library.
#include <cstdio>
#include <memory>

#include <carrow/concurrency/atomic.h>
#include <carrow/logging/log.h>
#include <carrow/version.h>

int main() {
  carrow::CRLog::setLogger(std::make_shared<carrow::CRPrintLogger>());
  carrow::Atomic<int> counter(0);
  counter.increment(1);
  std::printf("CarrowPrivate %.1f %s\n", CarrowPrivateVersionNumber,
              counter.wrappedValue() == 1 ? "ok" : "broken");
  return 0;
}
