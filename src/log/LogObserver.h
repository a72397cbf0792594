// Test seam: lets tests see every text handed to WriteDDSLog, with its key and
// code, whether or not a log manager exists. Called on the logging thread.
#ifndef MORVODDS_LOG_LOGOBSERVER_H
#define MORVODDS_LOG_LOGOBSERVER_H

#include <cstddef>

typedef void (*LogObserverFn)(void* context, int key, const char* text, size_t length, int code);

// Installs an observer (nullptr removes it). Not meant for production use.
void SetLogObserver(LogObserverFn fn, void* context);

#endif
