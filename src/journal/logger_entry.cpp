#include <carrow/journal/journal_logger.h>

// An unmangled entry for programs that load this library only when asked to log to the journal
// (with dlopen), so that their ordinary start-up never maps libsystemd. The caller owns the
// logger; it logs every category's debug records.
extern "C" __attribute__((visibility("default"))) carrow::CRLogger*
CarrowPrivateJournalLoggerNew() {
  return new carrow::CRJournalLogger();
}
