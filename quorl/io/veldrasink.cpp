#include <quorl/io/veldrasink.hpp>

#include <foundation/core/io/streambufadaptor.hpp>

namespace quorl {
namespace io {

namespace {
VeldraSink::NarrowBufferPtr adaptorFor(VeldraSink::UnicodeBufferPtr const& buffer) {
    return foundation::core::io::make_streambuf_adaptor(buffer, "");
}
} // namespace

VeldraSink::VeldraSink() : dirty_(false) {}

VeldraSink::VeldraSink(UnicodeBufferPtr const& buffer)
    : outBuffer_(adaptorFor(buffer)), unicodeOutBuffer_(buffer), initialOutBuffer_(outBuffer_),
      initialUnicodeOutBuffer_(buffer), dirty_(false) {}

VeldraSink::~VeldraSink() = default;

void VeldraSink::activate() {}

void VeldraSink::deactivate() {
    if (UnicodeBufferPtr const& buffer = getUnicodeOutStreamBuffer())
        buffer->pubsync();
}

bool VeldraSink::isDirty() const {
    return dirty_;
}
void VeldraSink::setDirty(bool dirty) {
    dirty_ = dirty;
}
bool VeldraSink::supportsMore() const {
    return false;
}
bool VeldraSink::supportsHotlinks() const {
    return false;
}
bool VeldraSink::needsFormattingForDisplay() const {
    return false;
}
bool VeldraSink::useDiary() const {
    return false;
}
bool VeldraSink::useEcho() const {
    return false;
}
bool VeldraSink::useLogging() const {
    return false;
}

VeldraSink::NarrowBufferPtr const& VeldraSink::getOutStreamBuffer() const {
    return outBuffer_;
}
VeldraSink::UnicodeBufferPtr const& VeldraSink::getUnicodeOutStreamBuffer() const {
    return unicodeOutBuffer_;
}

bool VeldraSink::usingInitialBuffers() const {
    return initialUnicodeOutBuffer_ && initialUnicodeOutBuffer_ == unicodeOutBuffer_;
}

VeldraSink::UnicodeBufferPtr VeldraSink::setUnicodeOutStreamBuffer(UnicodeBufferPtr const& buffer) {
    UnicodeBufferPtr previous = unicodeOutBuffer_;
    NarrowBufferPtr narrow = adaptorFor(buffer);
    if (!initialUnicodeOutBuffer_) {
        initialUnicodeOutBuffer_ = buffer;
        initialOutBuffer_ = adaptorFor(buffer);
    }
    unicodeOutBuffer_ = buffer;
    outBuffer_ = narrow;
    return previous;
}

VeldraSink::UnicodeBufferPtr VeldraSink::restoreInitialBuffers() {
    UnicodeBufferPtr current = unicodeOutBuffer_;
    unicodeOutBuffer_ = initialUnicodeOutBuffer_;
    outBuffer_ = initialOutBuffer_;
    return current;
}

void VeldraSink::bindBuffers(UnicodeBufferPtr const& unicode, NarrowBufferPtr const& narrow) {
    unicodeOutBuffer_ = unicode;
    initialUnicodeOutBuffer_ = unicode;
    outBuffer_ = narrow;
    initialOutBuffer_ = narrow;
}

} // namespace io
} // namespace quorl
