#pragma once
// ActiveCmdWinSinkProxy: the sink that stands for the command window of the current context,
// whichever sink that is now. Writes go to the context's ActiveCmdWinSinkBufferProxy for the
// stream (one per context and stream, however many proxies refer to it); traits are those of
// the active sink, or the command-window defaults while there is none.
//
// Ownership: the context owns its buffer proxies and their narrow adaptors; a proxy shares them
// once bound. A proxy binds at first use (activate or a buffer get) to the context in which that
// use happens, and stays bound to it.
// Threads: the threads of the context it is bound to. Binding outside any context throws
// foundation::usm::NoActiveContext; an unknown stream type is std::invalid_argument.
#include <quorl/io/activecmdwinsinkbufferproxy.hpp>
#include <quorl/io/sinktraits.hpp>
#include <quorl/io/streamtypeenum.hpp>
#include <quorl/io/veldrasink.hpp>

#include <boost/shared_ptr.hpp>

namespace quorl {
namespace io {

class CmdWinHostAccess;

class ActiveCmdWinSinkProxy : public VeldraSink {
public:
    explicit ActiveCmdWinSinkProxy(StreamTypeEnum stream);
    ~ActiveCmdWinSinkProxy() override;

    // A new proxy on each call.
    static boost::shared_ptr<ActiveCmdWinSinkProxy> getInstance(StreamTypeEnum stream);

    StreamTypeEnum getStreamType() const { return streamType_; }

    void activate() override;
    // Syncs the bound buffer; an unbound proxy has nothing to sync and does not bind here.
    void deactivate() override;
    bool isDirty() const override;
    void setDirty(bool dirty) override;
    bool supportsMore() const override;
    bool supportsHotlinks() const override;
    bool needsFormattingForDisplay() const override;
    bool useDiary() const override;
    bool useEcho() const override;
    bool useLogging() const override;
    NarrowBufferPtr const& getOutStreamBuffer() const override;
    UnicodeBufferPtr const& getUnicodeOutStreamBuffer() const override;

private:
    friend class CmdWinHostAccess;
    // The active sink of `stream` in the current context; null outside a context or before one
    // was set.
    static boost::shared_ptr<VeldraSink> getCmdWinSink(StreamTypeEnum stream);
    // Sets the active sink of `stream` in the current context (null: none). A command-window
    // proxy that would write back into this very buffer is std::invalid_argument.
    static void setCmdWinSink(StreamTypeEnum stream, boost::shared_ptr<VeldraSink> const& sink);

    // Binds to the current context's buffer proxy unless bound already.
    void ensureBufferCreation() const;
    boost::shared_ptr<VeldraSink> activeSink() const { return getCmdWinSink(streamType_); }

    StreamTypeEnum streamType_;
    SinkTraits fallbackTraits_;
};

} // namespace io
} // namespace quorl
