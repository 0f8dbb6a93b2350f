// The framework's bookkeeping: installed bundles, their libraries and activators, and the
// service registry. One mutex per framework guards the lists; each bundle has its own lifecycle
// mutex so that activators run without the framework lock held.
#include <cppmicroservices/bundleactivator.hpp>
#include <cppmicroservices/framework.hpp>

#include <boost/dll/import.hpp>
#include <boost/dll/shared_library.hpp>
#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <mutex>

namespace cppmicroservices {
namespace detail {

struct CoreData;

struct ContextData {
    std::weak_ptr<CoreData> core;
    std::weak_ptr<BundleData> bundle; // empty for the framework's own context
    std::atomic<bool> valid{true};
};

struct BundleData {
    std::weak_ptr<CoreData> core;
    long id = 0;
    std::string location;
    std::string symbolicName;
    boost::filesystem::path library;
    std::map<std::string, Any> properties;

    std::recursive_mutex lifecycle; // serialises Start and Stop; guards the members below
    std::atomic<Bundle::State> state{Bundle::STATE_INSTALLED};
    std::shared_ptr<boost::dll::shared_library> lib;
    std::unique_ptr<BundleActivator> activator;
    std::shared_ptr<ContextData> context;
};

struct RegistrationData {
    std::shared_ptr<void> keepLibrary; // declared first: released last
    std::shared_ptr<void> service;
    std::string interfaceId;
    std::weak_ptr<BundleData> bundle;
    ServiceProperties properties;
    std::atomic<bool> registered{true};
};

struct CoreData {
    boost::filesystem::path root;
    std::shared_ptr<ContextData> context;

    std::mutex mutex; // guards the members below
    std::vector<std::shared_ptr<BundleData>> bundles;
    std::vector<std::shared_ptr<RegistrationData>> registrations;
    std::vector<std::weak_ptr<BundleData>> startOrder;
    long nextBundleId = 1;
    bool stopped = false;
};

namespace {

std::string trim(const std::string& s) {
    auto b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) {
        return {};
    }
    auto e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

// A manifest is "key=value" lines; blank lines and lines starting with '#' are skipped.
// "bundle.library" names the shared library, relative to the manifest's folder;
// "bundle.symbolic_name" defaults to the manifest's file stem.
std::shared_ptr<BundleData> readManifest(const boost::filesystem::path& file) {
    std::ifstream in(file.string());
    if (!in) {
        throw std::runtime_error("Cannot read bundle manifest " + file.string() + ".");
    }
    auto data = std::make_shared<BundleData>();
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        auto text = trim(line);
        if (text.empty() || text[0] == '#') {
            continue;
        }
        auto eq = text.find('=');
        auto where = "Bundle manifest " + file.string() + " line " + std::to_string(number);
        if (eq == std::string::npos || trim(text.substr(0, eq)).empty()) {
            throw std::runtime_error(where + ": expected key=value.");
        }
        auto key = trim(text.substr(0, eq));
        if (!data->properties.emplace(key, Any(trim(text.substr(eq + 1)))).second) {
            throw std::runtime_error(where + ": repeated key \"" + key + "\".");
        }
    }
    auto lib = data->properties.find("bundle.library");
    if (lib == data->properties.end() || lib->second.ToString().empty()) {
        throw std::runtime_error("Bundle manifest " + file.string() +
                                 " has no \"bundle.library\".");
    }
    boost::filesystem::path library(lib->second.ToString());
    data->library = library.is_absolute() ? library : file.parent_path() / library;
    auto name = data->properties.find("bundle.symbolic_name");
    data->symbolicName =
        name == data->properties.end() ? file.stem().string() : name->second.ToString();
    data->location = file.string();
    return data;
}

std::shared_ptr<CoreData> lockCore(const std::weak_ptr<CoreData>& core) {
    auto c = core.lock();
    if (!c) {
        throw std::logic_error("The framework is not running.");
    }
    return c;
}

// Withdraws the services of one bundle, or all services when bundle is null.
void unregisterAll(CoreData& core, const BundleData* bundle) {
    std::vector<std::shared_ptr<RegistrationData>> gone;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        auto keep = std::partition(core.registrations.begin(), core.registrations.end(),
                                   [&](const std::shared_ptr<RegistrationData>& r) {
                                       return bundle && r->bundle.lock().get() != bundle;
                                   });
        gone.assign(keep, core.registrations.end());
        core.registrations.erase(keep, core.registrations.end());
    }
    for (auto& r : gone) {
        r->registered = false;
    }
}

} // namespace
} // namespace detail

using detail::BundleData;
using detail::ContextData;
using detail::CoreData;
using detail::RegistrationData;

// Bundle

BundleData& Bundle::data() const {
    if (!d_) {
        throw std::invalid_argument("The bundle handle is invalid.");
    }
    return *d_;
}

long Bundle::GetBundleId() const {
    return data().id;
}

std::string Bundle::GetSymbolicName() const {
    return data().symbolicName;
}

std::string Bundle::GetLocation() const {
    return data().location;
}

Bundle::State Bundle::GetState() const {
    return data().state;
}

Any Bundle::GetProperty(const std::string& key) const {
    auto& p = data().properties;
    auto it = p.find(key);
    return it == p.end() ? Any() : it->second;
}

std::vector<std::string> Bundle::GetPropertyKeys() const {
    std::vector<std::string> keys;
    for (auto& kv : data().properties) {
        keys.push_back(kv.first);
    }
    return keys;
}

void Bundle::Start() {
    auto& d = data();
    std::lock_guard<std::recursive_mutex> lock(d.lifecycle);
    if (d.state == STATE_ACTIVE) {
        return;
    }
    if (d.state == STATE_UNINSTALLED) {
        throw std::logic_error("Bundle " + d.symbolicName + " is uninstalled.");
    }
    auto core = detail::lockCore(d.core);
    d.state = STATE_STARTING;
    try {
        auto lib = std::make_shared<boost::dll::shared_library>();
        boost::system::error_code ec;
        lib->load(d.library, ec);
        if (ec) {
            throw std::runtime_error("Bundle " + d.symbolicName + ": cannot load " +
                                     d.library.string() + ": " + ec.message());
        }
        if (!lib->has(CPPMICROSERVICES_ACTIVATOR_SYMBOL)) {
            throw std::runtime_error("Bundle " + d.symbolicName + ": " + d.library.string() +
                                     " exports no bundle activator.");
        }
        auto create =
            boost::dll::import <BundleActivator*()>(*lib, CPPMICROSERVICES_ACTIVATOR_SYMBOL);
        std::unique_ptr<BundleActivator> activator(create());
        auto context = std::make_shared<ContextData>();
        context->core = core;
        context->bundle = d_;
        d.lib = lib;
        try {
            activator->Start(BundleContext(context));
        } catch (...) {
            context->valid = false;
            detail::unregisterAll(*core, &d);
            activator.reset();
            d.lib.reset();
            throw;
        }
        d.activator = std::move(activator);
        d.context = std::move(context);
        d.state = STATE_ACTIVE;
        std::lock_guard<std::mutex> coreLock(core->mutex);
        core->startOrder.push_back(d_);
    } catch (...) {
        d.state = STATE_RESOLVED;
        throw;
    }
}

void Bundle::Stop() {
    auto& d = data();
    std::lock_guard<std::recursive_mutex> lock(d.lifecycle);
    if (d.state != STATE_ACTIVE) {
        return;
    }
    d.state = STATE_STOPPING;
    auto core = d.core.lock();
    try {
        d.activator->Stop(BundleContext(d.context));
    } catch (...) {
        // Stop goes on: the bundle's services and library must go in any case.
        d.context->valid = false;
        if (core) {
            detail::unregisterAll(*core, &d);
        }
        d.activator.reset();
        d.lib.reset();
        d.state = STATE_RESOLVED;
        throw;
    }
    d.context->valid = false;
    if (core) {
        detail::unregisterAll(*core, &d);
    }
    d.activator.reset();
    d.context.reset();
    d.lib.reset();
    d.state = STATE_RESOLVED;
}

BundleContext Bundle::GetBundleContext() const {
    auto& d = data();
    std::lock_guard<std::recursive_mutex> lock(d.lifecycle);
    return d.state == STATE_ACTIVE ? BundleContext(d.context) : BundleContext();
}

// BundleContext

BundleContext::operator bool() const {
    return d_ && d_->valid && !d_->core.expired();
}

ContextData& BundleContext::data() const {
    if (!*this) {
        throw std::logic_error("The bundle context is invalid.");
    }
    return *d_;
}

Bundle BundleContext::GetBundle() const {
    return Bundle(data().bundle.lock());
}

std::vector<Bundle> BundleContext::GetBundles() const {
    auto core = detail::lockCore(data().core);
    std::lock_guard<std::mutex> lock(core->mutex);
    std::vector<Bundle> out;
    for (auto& b : core->bundles) {
        out.emplace_back(b);
    }
    return out;
}

std::vector<Bundle> BundleContext::InstallBundles(const std::string& location) {
    auto core = detail::lockCore(data().core);
    boost::filesystem::path file(location);
    if (file.is_relative()) {
        file = core->root / file;
    }
    file = file.lexically_normal();
    {
        std::lock_guard<std::mutex> lock(core->mutex);
        for (auto& b : core->bundles) {
            if (b->location == file.string()) {
                return {Bundle(b)};
            }
        }
    }
    auto data = detail::readManifest(file);
    data->core = core;
    std::lock_guard<std::mutex> lock(core->mutex);
    if (core->stopped) {
        throw std::logic_error("The framework is not running.");
    }
    for (auto& b : core->bundles) {
        if (b->location == data->location) {
            return {Bundle(b)}; // installed meanwhile by another thread
        }
    }
    data->id = core->nextBundleId++;
    core->bundles.push_back(data);
    return {Bundle(data)};
}

ServiceRegistrationBase BundleContext::registerService(const std::string& interfaceId,
                                                       std::shared_ptr<void> service,
                                                       const ServiceProperties& properties) {
    if (!service) {
        throw std::invalid_argument("A null service cannot be registered.");
    }
    auto& d = data();
    auto core = detail::lockCore(d.core);
    auto r = std::make_shared<RegistrationData>();
    if (auto bundle = d.bundle.lock()) {
        r->keepLibrary = bundle->lib;
        r->bundle = bundle;
    }
    r->service = std::move(service);
    r->interfaceId = interfaceId;
    r->properties = properties;
    std::lock_guard<std::mutex> lock(core->mutex);
    core->registrations.push_back(r);
    return ServiceRegistrationBase(r, interfaceId);
}

ServiceReferenceU BundleContext::GetServiceReference(const std::string& interfaceId) {
    auto core = detail::lockCore(data().core);
    std::lock_guard<std::mutex> lock(core->mutex);
    for (auto& r : core->registrations) {
        if (r->interfaceId == interfaceId && r->registered) {
            return ServiceReferenceU(r, interfaceId);
        }
    }
    return ServiceReferenceU();
}

// Services

ServiceReferenceBase::operator bool() const {
    return d_ && d_->registered;
}

Any ServiceReferenceBase::GetProperty(const std::string& key) const {
    if (!d_) {
        return Any();
    }
    auto it = d_->properties.find(key);
    return it == d_->properties.end() ? Any() : it->second;
}

Bundle ServiceReferenceBase::GetBundle() const {
    return d_ ? Bundle(d_->bundle.lock()) : Bundle();
}

void ServiceRegistrationBase::Unregister() {
    if (!d_ || !d_->registered.exchange(false)) {
        return;
    }
    if (auto bundle = d_->bundle.lock()) {
        if (auto core = bundle->core.lock()) {
            std::lock_guard<std::mutex> lock(core->mutex);
            auto& regs = core->registrations;
            regs.erase(std::remove(regs.begin(), regs.end(), d_), regs.end());
        }
    }
}

std::shared_ptr<void> ServiceObjectsBase::GetService() const {
    auto r = reference_.data();
    if (!r || !r->registered) {
        return nullptr;
    }
    // The returned pointer owns the registration, which keeps the library loaded.
    return std::shared_ptr<void>(r, r->service.get());
}

// Framework

Framework::Framework(boost::filesystem::path bundleRoot) : d_(std::make_shared<CoreData>()) {
    d_->root = std::move(bundleRoot);
    d_->context = std::make_shared<ContextData>();
    d_->context->core = d_;
}

Framework::~Framework() {
    try {
        Stop();
    } catch (...) {
        // A failing activator must not end the process at shutdown.
    }
}

BundleContext Framework::GetBundleContext() const {
    return BundleContext(d_->context);
}

std::vector<Bundle> Framework::GetBundles() const {
    std::lock_guard<std::mutex> lock(d_->mutex);
    std::vector<Bundle> out;
    for (auto& b : d_->bundles) {
        out.emplace_back(b);
    }
    return out;
}

const boost::filesystem::path& Framework::GetBundleRoot() const {
    return d_->root;
}

void Framework::Stop() {
    std::vector<std::weak_ptr<BundleData>> order;
    std::vector<std::shared_ptr<BundleData>> bundles;
    {
        std::lock_guard<std::mutex> lock(d_->mutex);
        if (d_->stopped) {
            return;
        }
        d_->stopped = true;
        order.swap(d_->startOrder);
        bundles.swap(d_->bundles);
    }
    std::exception_ptr first;
    for (auto it = order.rbegin(); it != order.rend(); ++it) {
        if (auto b = it->lock()) {
            try {
                Bundle(b).Stop();
            } catch (...) {
                if (!first) {
                    first = std::current_exception();
                }
            }
        }
    }
    for (auto& b : bundles) {
        b->state = Bundle::STATE_UNINSTALLED;
    }
    d_->context->valid = false;
    detail::unregisterAll(*d_, nullptr);
    if (first) {
        std::rethrow_exception(first);
    }
}

} // namespace cppmicroservices
