#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/io/sinktraits.hpp>

namespace quorl {
namespace io {

SinkTraits::SinkTraits()
    : supportsMore_(false), supportsHotlinks_(false), needsFormattingForDisplay_(false),
      useDiary_(false), useEcho_(false), useLogging_(false) {}

SinkTraits::SinkTraits(boost::shared_ptr<VeldraSink> const& sink) : SinkTraits() {
    if (!sink)
        return;
    supportsMore_ = sink->supportsMore();
    supportsHotlinks_ = sink->supportsHotlinks();
    needsFormattingForDisplay_ = sink->needsFormattingForDisplay();
    useDiary_ = sink->useDiary();
    useEcho_ = sink->useEcho();
    useLogging_ = sink->useLogging();
}

SinkTraits::~SinkTraits() = default;

bool SinkTraits::equalsExceptSupportsMore(SinkTraits const& o) const {
    return needsFormattingForDisplay_ == o.needsFormattingForDisplay_ &&
           supportsHotlinks_ == o.supportsHotlinks_ && useDiary_ == o.useDiary_ &&
           useEcho_ == o.useEcho_ && useLogging_ == o.useLogging_;
}

bool SinkTraits::operator==(SinkTraits const& o) const {
    return equalsExceptSupportsMore(o) && supportsMore_ == o.supportsMore_;
}

std::ostream& operator<<(std::ostream& os, SinkTraits const& t) {
    auto yes = [](bool b) { return b ? "true" : "false"; };
    return os << "more: " << yes(t.supportsMore()) << '\n'
              << "links: " << yes(t.supportsHotlinks()) << '\n'
              << "displayformatting: " << yes(t.needsFormattingForDisplay()) << '\n'
              << "diary: " << yes(t.useDiary()) << '\n'
              << "echo: " << yes(t.useEcho()) << '\n'
              << "logging: " << yes(t.useLogging()) << '\n';
}

template <class Archive> void SinkTraits::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("more", supportsMore_);
    ar& boost::serialization::make_nvp("links", supportsHotlinks_);
    ar& boost::serialization::make_nvp("displayformatting", needsFormattingForDisplay_);
    ar& boost::serialization::make_nvp("diary", useDiary_);
    ar& boost::serialization::make_nvp("echo", useEcho_);
    ar& boost::serialization::make_nvp("logging", useLogging_);
    // Paging needs the sink at hand; traits read from an archive describe a sink elsewhere.
    if constexpr (Archive::is_loading::value)
        supportsMore_ = false;
}
ZN_SERIALIZE_EXPLICIT(SinkTraits)

} // namespace io
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::io::SinkTraits)
