#pragma once
// utPrintf: the text output of array displays. It formats like printf and hands the text to the
// current sink, which is standard output until a host or a test installs another.
//
// Threads: any thread may print and replace the sink; a print uses the sink that was current
// when it started. Errors: a bad format is the caller's (as with printf); the sink's exceptions
// pass to the caller of utPrintf.
#include <cstddef>
#include <functional>

typedef std::function<void(const char* text, std::size_t length)> utPrintfSink;

int utPrintf(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

// Installs `sink` (an empty function restores standard output) and returns the previous one.
utPrintfSink utSetPrintfSink(utPrintfSink sink);
