#pragma once
// A 16-bit stream buffer for tests: keeps every unit written to it, from any thread, and lets a
// test wait (up to 20 s) for some text or for a length.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <streambuf>
#include <string>

namespace quorl_testing {

class TextBuffer : public std::basic_streambuf<char16_t> {
public:
    std::u16string text() {
        std::lock_guard<std::mutex> lock(mutex_);
        return text_;
    }
    // True once the text contains `part`; false when the patience ran out first.
    bool waitFor(std::u16string const& part) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, patience,
                                 [&] { return text_.find(part) != std::u16string::npos; });
    }
    // The text once it holds at least `length` units, or what it holds after the patience.
    std::u16string waitForLength(std::size_t length) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, patience, [&] { return text_.size() >= length; });
        return text_;
    }

protected:
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override {
        std::lock_guard<std::mutex> lock(mutex_);
        text_.append(s, static_cast<std::size_t>(n));
        changed_.notify_all();
        return n;
    }
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof()))
            return traits_type::not_eof(c);
        char16_t unit = traits_type::to_char_type(c);
        xsputn(&unit, 1);
        return c;
    }

private:
    static constexpr std::chrono::seconds patience{20};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::u16string text_;
};

} // namespace quorl_testing
