#pragma once
// ActiveCmdWinSinkBufferProxy: the 16-bit stream buffer behind the command window of one
// context and stream. Each write is copied to the process's log stream, its diary stream and the
// SinkTextEvent mirror (as enabled), then handed to the active sink through the process's send
// function, which may apply paging. Text written while no sink is set waits, in order, and goes
// out ahead of the next text once a sink is there.
//
// Ownership: each context owns one buffer proxy per stream (ActiveCmdWinSinkProxy makes them);
// a buffer proxy owns its pending text, its SinkTextEventBuffer and its diary converter, and
// shares the active sink. The log and diary streams are shared process-wide.
// Threads: the threads of one context write; the buffer proxy takes no lock of its own. The
// sink, log and diary pointers are read and replaced atomically, so setting them from another
// thread is safe. A write passes on what the sink, the send function and the streams throw.
#include <quorl/io/sinktexteventbuffer.hpp>
#include <quorl/io/streamtypeenum.hpp>
#include <quorl/io/veldrasink.hpp>

#include <fl/i18n/conversions.hpp>

#include <boost/shared_ptr.hpp>

#include <memory>
#include <ostream>
#include <streambuf>
#include <vector>

namespace quorl {
namespace io {

// Hands `length` units of `text` to `sink` and returns how many it took, as sputn does.
typedef long long (*SendFunction)(char16_t const* text, long long length,
                                  boost::shared_ptr<VeldraSink> const& sink);

// Replace the process's log and diary streams; a null pointer switches that copy off.
void SetLogStreamPtr(boost::shared_ptr<std::basic_ostream<char16_t>> const& log);
void SetDiaryStreamPtr(boost::shared_ptr<std::ostream> const& diary);

class ActiveCmdWinSinkProxy;

class ActiveCmdWinSinkBufferProxy : public std::basic_streambuf<char16_t> {
public:
    explicit ActiveCmdWinSinkBufferProxy(StreamTypeEnum stream);
    ~ActiveCmdWinSinkBufferProxy() override;

    StreamTypeEnum getStreamType() const { return streamType_; }

    // The send function that hands text to the sink's own buffer: sputn, nothing else.
    static long long defaultSend(char16_t const* text, long long length,
                                 boost::shared_ptr<VeldraSink> const& sink);

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override;
    int sync() override;

private:
    friend class ActiveCmdWinSinkProxy;
    boost::shared_ptr<VeldraSink> getSink() const;
    void setSink(boost::shared_ptr<VeldraSink> const& sink);

    void mirror(char16_t const* s, std::streamsize n, VeldraSink const* sink);
    void writeDiary(std::ostream& diary, char16_t const* s, std::streamsize n);

    StreamTypeEnum streamType_;
    std::unique_ptr<SinkTextEventBuffer> textEventBuffer_;
    std::vector<char16_t> pending_;
    fl::i18n::stream_converter diaryConverter_;
    boost::shared_ptr<VeldraSink> sink_; // read and written with boost::atomic_load/store
    bool dirty_;
    bool textEventsWatched_;
};

} // namespace io
} // namespace quorl
