#pragma once
// VeldraSink: base class of every output sink. It holds the 16-bit stream buffer that text is
// written to, a narrow adaptor in front of it, and the first pair of these so that a sink can
// redirect its output for a while and go back. The capability questions answer false here.
//
// Ownership: the sink shares ownership of its buffers (current and initial). Not copyable.
// Threads: a sink and its buffers belong to the thread that writes; nothing here locks.
// Throws: the public constructor and setUnicodeOutStreamBuffer throw std::invalid_argument for a
// null buffer (from make_streambuf_adaptor); nothing else throws.
#include <boost/core/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

#include <streambuf>

namespace quorl {
namespace io {

class VeldraSink : private boost::noncopyable {
public:
    typedef boost::shared_ptr<std::basic_streambuf<char>> NarrowBufferPtr;
    typedef boost::shared_ptr<std::basic_streambuf<char16_t>> UnicodeBufferPtr;

    // Writes go to `buffer`; a narrow adaptor (default encoding) is made in front of it.
    explicit VeldraSink(UnicodeBufferPtr const& buffer);

    virtual void activate();
    // Syncs the current 16-bit buffer; a sink without a buffer has nothing to sync.
    virtual void deactivate();
    virtual bool isDirty() const;
    virtual void setDirty(bool dirty);
    virtual bool supportsMore() const;
    virtual bool supportsHotlinks() const;
    virtual bool needsFormattingForDisplay() const;
    virtual bool useDiary() const;
    virtual bool useEcho() const;
    virtual bool useLogging() const;
    virtual ~VeldraSink();
    virtual NarrowBufferPtr const& getOutStreamBuffer() const;
    virtual UnicodeBufferPtr const& getUnicodeOutStreamBuffer() const;

    // Whether the current buffer is the first one the sink had.
    bool usingInitialBuffers() const;

protected:
    // No buffers yet: a subclass sets one before writing.
    VeldraSink();

    // Makes `buffer` current (and initial, if the sink had none) and returns the previous
    // current buffer, so that redirections can nest.
    UnicodeBufferPtr setUnicodeOutStreamBuffer(UnicodeBufferPtr const& buffer);
    // Drops all redirections; returns the buffer that was current.
    UnicodeBufferPtr restoreInitialBuffers();
    // Makes `unicode` and `narrow` both the initial and the current pair, as given.
    void bindBuffers(UnicodeBufferPtr const& unicode, NarrowBufferPtr const& narrow);

private:
    NarrowBufferPtr outBuffer_;
    UnicodeBufferPtr unicodeOutBuffer_;
    NarrowBufferPtr initialOutBuffer_;
    UnicodeBufferPtr initialUnicodeOutBuffer_;
    bool dirty_;
};

} // namespace io
} // namespace quorl
