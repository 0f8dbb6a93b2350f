#pragma once
// cppmicroservices::Bundle: a handle to an installed bundle, a shared library with the
// properties of its manifest. Copies refer to the same bundle; a default-constructed handle is
// invalid. Any thread may call; Start and Stop of one bundle are serialised. Operations on an
// invalid handle raise std::invalid_argument; Start raises std::runtime_error when the library
// cannot be loaded or has no activator, and passes on what the activator throws.
#include <cppmicroservices/any.hpp>

#include <memory>
#include <string>
#include <vector>

namespace cppmicroservices {

namespace detail {
struct BundleData;
}
class BundleContext;

class Bundle {
public:
    enum State {
        STATE_UNINSTALLED = 0x01,
        STATE_INSTALLED = 0x02,
        STATE_RESOLVED = 0x04,
        STATE_STARTING = 0x08,
        STATE_STOPPING = 0x10,
        STATE_ACTIVE = 0x20
    };

    Bundle() = default;
    explicit Bundle(std::shared_ptr<detail::BundleData> data) : d_(std::move(data)) {}

    explicit operator bool() const { return static_cast<bool>(d_); }
    friend bool operator==(const Bundle& a, const Bundle& b) { return a.d_ == b.d_; }
    friend bool operator!=(const Bundle& a, const Bundle& b) { return a.d_ != b.d_; }

    long GetBundleId() const;
    std::string GetSymbolicName() const;
    // The manifest file the bundle was installed from.
    std::string GetLocation() const;
    State GetState() const;
    // A manifest property; an empty Any when the manifest has no such key.
    Any GetProperty(const std::string& key) const;
    std::vector<std::string> GetPropertyKeys() const;

    // Loads the library and runs its activator; does nothing for an active bundle.
    void Start();
    // Runs the activator's Stop, withdraws the bundle's services and lets the library go.
    void Stop();
    // The bundle's own context while it is active, an invalid one otherwise.
    BundleContext GetBundleContext() const;

private:
    detail::BundleData& data() const;

    std::shared_ptr<detail::BundleData> d_;
};

} // namespace cppmicroservices
