// utPrintf: printf-style text output to a replaceable sink.
#include <hv/utprintf.hpp>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

namespace {

std::mutex sinkMutex; // guards currentSink
std::shared_ptr<const utPrintfSink> currentSink;

std::shared_ptr<const utPrintfSink> sink() {
    std::lock_guard<std::mutex> lock(sinkMutex);
    return currentSink;
}

} // namespace

int utPrintf(const char* format, ...) {
    if (format == nullptr) {
        return 0;
    }
    char small[512];
    std::va_list args;
    va_start(args, format);
    std::va_list again;
    va_copy(again, args);
    int length = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (length < 0) {
        va_end(again);
        return length;
    }
    std::vector<char> large;
    const char* text = small;
    if (static_cast<std::size_t>(length) >= sizeof small) {
        large.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(large.data(), large.size(), format, again);
        text = large.data();
    }
    va_end(again);
    std::shared_ptr<const utPrintfSink> target = sink();
    if (target != nullptr) {
        (*target)(text, static_cast<std::size_t>(length));
    } else {
        std::fwrite(text, 1, static_cast<std::size_t>(length), stdout);
    }
    return length;
}

utPrintfSink utSetPrintfSink(utPrintfSink newSink) {
    std::shared_ptr<const utPrintfSink> replacement;
    if (newSink) {
        replacement = std::make_shared<const utPrintfSink>(std::move(newSink));
    }
    std::lock_guard<std::mutex> lock(sinkMutex);
    std::shared_ptr<const utPrintfSink> previous = std::move(currentSink);
    currentSink = std::move(replacement);
    return previous != nullptr ? *previous : utPrintfSink();
}
