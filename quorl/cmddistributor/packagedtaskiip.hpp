#pragma once
// PackagedTaskIIP: the packet of a packaged task, a function object that an interpreter thread
// runs in order with the other packets of its context (getFunction()). A task lives in memory
// only: canBeSerialized() is false, saving writes the base packet and the task's type name, and
// loading reads them and then throws std::logic_error, so a stray attempt fails clearly.
//
// Owns its function object. Immutable after construction; any thread may read it. The
// constructor throws std::invalid_argument ("func cannot be empty.") for an empty function.
#include <quorl/cmddistributor/iip.hpp>

#include <boost/any.hpp>

#include <functional>
#include <string>

namespace cmddistributor {

class PackagedTaskIIP : public IIP {
public:
    typedef std::function<boost::any()> Function;

    PackagedTaskIIP(Function func, boost::shared_ptr<quorl::io::VeldraSink> const& outputSink,
                    boost::shared_ptr<quorl::io::VeldraSink> const& errorSink,
                    std::string const& pluginType = "packaged_task");
    ~PackagedTaskIIP() override;

    // The base packet's text, then the task's type name and " cannot be serialized.".
    void write(std::ostream& out) const override;
    bool canBeSerialized() const override;

    Function const& getFunction() const { return func_; }
    // The readable name of the task's declared type.
    std::string getTaskTypeName() const { return taskTypeName_(); }

private:
    PackagedTaskIIP();

    ZN_SERIALIZABLE()
    Function func_;
    std::string (*taskTypeName_)();
    // True only while this class's own loader reads the base packet, so that the base accepts the
    // fields and the refusal below comes with its own text.
    bool readingBase_ = false;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::PackagedTaskIIP, 1)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::PackagedTaskIIP, "cmddistributor::PackagedTaskIIP")
