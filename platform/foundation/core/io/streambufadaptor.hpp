#pragma once
// make_streambuf_adaptor: a narrow stream buffer in front of a 16-bit one. Bytes written to
// the adaptor are decoded from `encoding` and passed on as UTF-16 units.
//
// `encoding` "" or "UTF-8" decodes incrementally: a character split across two writes is kept
// until its last byte arrives. Other encodings go through Boost.Locale a write at a time, so
// they must be single-byte encodings or be written in whole characters. Malformed input
// becomes U+FFFD rather than being lost silently.
//
// The adaptor shares ownership of the target. pubsync() passes the pending text on and then
// syncs the target. Like any stream buffer it belongs to one thread at a time.
// An unknown encoding raises std::invalid_argument at creation.
#include <boost/shared_ptr.hpp>

#include <streambuf>
#include <string>

namespace foundation {
namespace core {
namespace io {

boost::shared_ptr<std::basic_streambuf<char>>
make_streambuf_adaptor(boost::shared_ptr<std::basic_streambuf<char16_t>> const& target,
                       std::string const& encoding);

} // namespace io
} // namespace core
} // namespace foundation
