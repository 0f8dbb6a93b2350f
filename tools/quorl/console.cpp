#include <tools/quorl/console.hpp>

#include <quorl/io/activecmdwinsinkbufferproxy.hpp>
#include <quorl/io/activecmdwinsinkproxy.hpp>
#include <quorl/io/cmdwinhostaccess.hpp>

#include <fl/i18n/conversions.hpp>

#include <boost/make_shared.hpp>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace quorl {
namespace cli {

namespace {

// 16-bit text converted to UTF-8 and handed to `put` a block at a time.
class Utf8Buffer : public std::basic_streambuf<char16_t> {
protected:
    virtual void put(char const* bytes, std::size_t size) = 0;
    // Called once the whole of a write has been put.
    virtual void written() {}

    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof()))
            return traits_type::not_eof(c);
        char16_t const unit = traits_type::to_char_type(c);
        return xsputn(&unit, 1) == 1 ? c : traits_type::eof();
    }
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override {
        char16_t const* in = s;
        char16_t const* const end = s + n;
        char work[4096];
        while (std::size_t const got = converter_.convert(work, work + sizeof work, in, end))
            put(work, got);
        written();
        return n;
    }

private:
    fl::i18n::stream_converter converter_;
};

// Prints 16-bit text as UTF-8 to a C stream, flushed at once.
class TerminalBuffer : public Utf8Buffer {
public:
    explicit TerminalBuffer(std::FILE* file) : file_(file) {}

protected:
    void put(char const* bytes, std::size_t size) override { std::fwrite(bytes, 1, size, file_); }
    void written() override { std::fflush(file_); }
    int sync() override { return std::fflush(file_) == 0 ? 0 : -1; }

private:
    std::FILE* file_;
};

// Writes 16-bit text as UTF-8 to a narrow stream (the log file).
class NarrowingBuffer : public Utf8Buffer {
public:
    explicit NarrowingBuffer(std::unique_ptr<std::ofstream> file) : file_(std::move(file)) {}

protected:
    void put(char const* bytes, std::size_t size) override {
        file_->write(bytes, static_cast<std::streamsize>(size));
    }
    int sync() override { return file_->flush() ? 0 : -1; }

private:
    std::unique_ptr<std::ofstream> file_;
};

// The terminal as the command window's sink: what it shows goes to the diary and the log too.
class TerminalSink : public io::VeldraSink {
public:
    explicit TerminalSink(std::FILE* file)
        : io::VeldraSink(boost::make_shared<TerminalBuffer>(file)) {}
    bool useDiary() const override { return true; }
    bool useLogging() const override { return true; }
};

std::unique_ptr<std::ofstream> openAppending(std::string const& path, char const* what) {
    auto file = std::make_unique<std::ofstream>(path, std::ios::app | std::ios::binary);
    if (!*file)
        throw std::runtime_error(std::string("cannot write the ") + what + " " + path);
    return file;
}

void writeError(std::ostream& os, ::cmddistributor::RuntimeException const& e,
                std::string const& indent) {
    os << indent << (indent.empty() ? "error: " : "caused by: ") << e.what();
    if (!e.GetID().empty())
        os << " [" << e.GetID() << "]";
    os << "\n";
    for (auto const& frame : e.getStackFrames()) {
        os << indent << "  in " << (frame.func.empty() ? "?" : frame.func);
        if (frame.line > 0 && std::isfinite(frame.line))
            os << " at line " << static_cast<long long>(frame.line);
        if (!frame.file.empty())
            os << " of " << fl::i18n::to_string(frame.file);
        os << "\n";
    }
    for (auto const& cause : e.getCauses())
        writeError(os, cause, indent + "  ");
}

} // namespace

// A request's sink buffer: hands each piece to the command window and flushes it.
class Console::Forward : public std::basic_streambuf<char16_t> {
public:
    Forward(Console& console, std::basic_streambuf<char16_t>& target)
        : console_(console), target_(target) {}

protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof()))
            return traits_type::not_eof(c);
        char16_t const unit = traits_type::to_char_type(c);
        return xsputn(&unit, 1) == 1 ? c : traits_type::eof();
    }
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override {
        console_.write(target_, s, n);
        return n;
    }

private:
    Console& console_;
    std::basic_streambuf<char16_t>& target_;
};

Console::Console() : context_(foundation::usm::Context::create("quorl command window")) {
    terminalOut_ = boost::make_shared<TerminalSink>(stdout);
    terminalErr_ = boost::make_shared<TerminalSink>(stderr);
    {
        foundation::usm::ContextScope inside(context_);
        io::CmdWinHostAccess::setCmdWinSink(io::OutputStream, terminalOut_);
        io::CmdWinHostAccess::setCmdWinSink(io::ErrorStream, terminalErr_);
        // A proxy binds to this context's command-window buffers at first use; they stay.
        windowOut_ =
            io::ActiveCmdWinSinkProxy::getInstance(io::OutputStream)->getUnicodeOutStreamBuffer();
        windowErr_ =
            io::ActiveCmdWinSinkProxy::getInstance(io::ErrorStream)->getUnicodeOutStreamBuffer();
    }
    out_ = boost::make_shared<io::VeldraSink>(boost::make_shared<Forward>(*this, *windowOut_));
    err_ = boost::make_shared<io::VeldraSink>(boost::make_shared<Forward>(*this, *windowErr_));
}

Console::~Console() {
    std::lock_guard<std::mutex> lock(writeMutex_);
    if (diary_)
        io::SetDiaryStreamPtr(nullptr);
    if (log_)
        io::SetLogStreamPtr(nullptr);
}

void Console::openDiary(std::string const& path) {
    auto file = openAppending(path, "diary");
    std::lock_guard<std::mutex> lock(writeMutex_);
    diary_ = boost::shared_ptr<std::ostream>(file.release());
    io::SetDiaryStreamPtr(diary_);
}

void Console::openLog(std::string const& path) {
    auto buffer = std::make_unique<NarrowingBuffer>(openAppending(path, "log"));
    std::lock_guard<std::mutex> lock(writeMutex_);
    // The stream owns its buffer through the deleter.
    NarrowingBuffer* raw = buffer.release();
    log_ = boost::shared_ptr<std::basic_ostream<char16_t>>(
        new std::basic_ostream<char16_t>(raw), [raw](std::basic_ostream<char16_t>* stream) {
            delete stream;
            delete raw;
        });
    io::SetLogStreamPtr(log_);
}

void Console::echo(std::string const& prompt, std::string const& input) {
    std::lock_guard<std::mutex> lock(writeMutex_);
    std::string const text = prompt + input + "\n";
    if (diary_)
        diary_->write(text.data(), static_cast<std::streamsize>(text.size())).flush();
    if (log_) {
        std::u16string const wide = fl::i18n::to_ustring(text);
        log_->write(wide.data(), static_cast<std::streamsize>(wide.size())).flush();
    }
}

void Console::printError(::cmddistributor::RuntimeException const& error) {
    std::ostringstream text;
    writeError(text, error, "");
    std::u16string const wide = fl::i18n::to_ustring(text.str());
    write(*windowErr_, wide.data(), static_cast<std::streamsize>(wide.size()));
}

void Console::message(std::string const& line) {
    std::u16string const wide = fl::i18n::to_ustring(line + "\n");
    write(*windowErr_, wide.data(), static_cast<std::streamsize>(wide.size()));
}

void Console::write(std::basic_streambuf<char16_t>& target, char16_t const* s, std::streamsize n) {
    std::lock_guard<std::mutex> lock(writeMutex_);
    target.sputn(s, n);
    target.pubsync(); // out to the terminal now, and the diary and log flushed
}

} // namespace cli
} // namespace quorl
