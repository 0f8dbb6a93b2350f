#pragma once
// SinkTraits: what an output sink can do (page, show links, format for display, diary, echo,
// logging), taken from a live sink once and then carried by value, so that an interpreter in
// another context can shape its output for a sink it cannot reach.
//
// A value type; any thread may use its own copy. Reading from an archive always clears
// supportsMore: paging needs the sink at hand, and a sink read from an archive is elsewhere.
// Throws nothing but what archives throw.
#include <quorl/io/veldrasink.hpp>

#include <foundation/msg_svc/serialization/serializable.hpp>

#include <boost/serialization/export.hpp>
#include <boost/shared_ptr.hpp>

#include <ostream>

namespace quorl {
namespace io {

class SinkTraits {
public:
    // All false.
    SinkTraits();
    // The sink's answers; all false for a null sink.
    explicit SinkTraits(boost::shared_ptr<VeldraSink> const& sink);
    SinkTraits(SinkTraits const&) = default;
    SinkTraits& operator=(SinkTraits const&) = default;
    virtual ~SinkTraits();

    bool supportsMore() const { return supportsMore_; }
    bool supportsHotlinks() const { return supportsHotlinks_; }
    bool needsFormattingForDisplay() const { return needsFormattingForDisplay_; }
    bool useDiary() const { return useDiary_; }
    bool useEcho() const { return useEcho_; }
    bool useLogging() const { return useLogging_; }

    bool operator==(SinkTraits const& other) const;
    bool operator!=(SinkTraits const& other) const { return !(*this == other); }

protected:
    bool equalsExceptSupportsMore(SinkTraits const& other) const;

private:
    ZN_SERIALIZABLE()
    bool supportsMore_;
    bool supportsHotlinks_;
    bool needsFormattingForDisplay_;
    bool useDiary_;
    bool useEcho_;
    bool useLogging_;
};

// Six lines "more: true" ... "logging: false".
std::ostream& operator<<(std::ostream& os, SinkTraits const& traits);

} // namespace io
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::io::SinkTraits, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::io::SinkTraits, "quorl::io::SinkTraits")
