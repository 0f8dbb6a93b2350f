#pragma once
// FEvalIIP: the packet of a function call: the function's name, the number of outputs asked for
// (nlhs), the caller's and the evaluator's contexts, and the arguments and result handling behind
// FEvalIIP::Data. The client's data is an FEvalOpaqueData, whose arrays a binary archive writes
// straight into itself. A packet read from an archive holds the arguments as they travelled: from
// a binary archive, arrays of raw elements already built from the bytes and the others as the
// bytes hvSerialize made; from other archives, the bytes; or EDI payloads. It makes the results
// fit to travel back (references and portable strings, then bytes).
//
// The interpreter side reads getFunctionName, getNlhs, getInputArguments (new arrays each call,
// owned by the caller) and isOutputConvertedFromEDI, and completes with createEvent in the form
// the client asked for.
//
// Ownership: the packet shares its Data. Threads: built on the client's thread, read on the
// interpreter's; setTarnIDs has no lock and must come before the packet is shared. Errors: the
// packet takes no decision on its arguments; a null Data is dereferenced by the forwarding
// operations. getInputArguments passes on std::runtime_error for corrupt argument bytes;
// createEvent of arrays raises RuntimeException (status 2) when a result cannot be converted.
#include <quorl/cmddistributor/edidatawrapper.hpp>
#include <quorl/cmddistributor/fevalcompletedevent.hpp>
#include <quorl/cmddistributor/iip.hpp>
#include <quorl/contextmgr/fennid.hpp>
#include <quorl/contextmgr/tarnid.hpp>

#include <hv/hvarray.hpp>

#include <boost/core/noncopyable.hpp>
#include <boost/variant.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace cmddistributor {

class FEvalIIP : public IIP {
public:
    typedef boost::variant<std::vector<std::vector<std::uint8_t>>,
                           quorl::cmddistributor::EDIDataWrapper>
        Payload;
    typedef boost::variant<std::vector<const hvArray*>, quorl::cmddistributor::EDIDataWrapper>
        Inputs;

    class Data : private boost::noncopyable {
    public:
        virtual ~Data();
        virtual Payload serialize() = 0;
        virtual Inputs getInputs() = 0;
        // Tells the arguments' deleters which context owns them; does nothing here.
        virtual void setDeleters(quorl::contextmgr::FennID id);
        virtual boost::shared_ptr<FEvalCompletedEvent>
        createEvent(const foundation::msg_svc::exchange::IDType& id,
                    std::vector<foundation::extdata::Array>&& results) = 0;
        virtual boost::shared_ptr<FEvalCompletedEvent>
        createEvent(const foundation::msg_svc::exchange::IDType& id,
                    std::vector<hvArray*>& results) = 0;
        virtual bool isOutputConvertedFromEDI() = 0;

        // The data of a packet whose EDI arguments arrived some other way than an archive. The
        // wrapper is copied, not moved.
        static boost::shared_ptr<Data>
        makeServerSideData(quorl::cmddistributor::EDIDataWrapper&& arguments,
                           const quorl::contextmgr::TarnID& clientTarnID,
                           const quorl::contextmgr::TarnID& serverTarnID,
                           bool isOutputConvertedFromEDI);
    };

    FEvalIIP(const std::string& plugin, const std::string& function, std::size_t nlhs,
             boost::shared_ptr<Data> data, IqmStreamID streamID,
             const boost::shared_ptr<quorl::io::VeldraSink>& outputSink,
             const boost::shared_ptr<quorl::io::VeldraSink>& errorSink,
             const quorl::contextmgr::TarnID& clientTarnID,
             const quorl::contextmgr::TarnID& serverTarnID);
    // The plug-in type "cmddistributor::feval_plugin".
    FEvalIIP(const std::string& function, std::size_t nlhs, boost::shared_ptr<Data> data,
             IqmStreamID streamID, const boost::shared_ptr<quorl::io::VeldraSink>& outputSink,
             const boost::shared_ptr<quorl::io::VeldraSink>& errorSink,
             const quorl::contextmgr::TarnID& clientTarnID,
             const quorl::contextmgr::TarnID& serverTarnID);
    ~FEvalIIP() override;

    static const char* pluginType() { return "cmddistributor::feval_plugin"; }

    // The base packet's text, then "function: ", "nlhs: " and "isOutputConvertedFromEDI"
    // followed directly by the flag, each on its own line.
    void write(std::ostream& out) const override;

    const std::string& getFunctionName() const { return function_; }
    std::size_t getNlhs() const { return nlhs_; }
    const quorl::contextmgr::TarnID& getClientTarnID() const { return clientTarnID_; }
    const quorl::contextmgr::TarnID& getTarnID() const { return serverTarnID_; }
    void setTarnIDs(const quorl::contextmgr::TarnID& client,
                    const quorl::contextmgr::TarnID& server);

    void setDeleters(quorl::contextmgr::FennID id) const;
    Inputs getInputArguments() const;
    boost::shared_ptr<FEvalCompletedEvent>
    createEvent(const foundation::msg_svc::exchange::IDType& id,
                std::vector<foundation::extdata::Array>&& results) const;
    boost::shared_ptr<FEvalCompletedEvent>
    createEvent(const foundation::msg_svc::exchange::IDType& id,
                std::vector<hvArray*>& results) const;
    bool isOutputConvertedFromEDI() const;

    const boost::shared_ptr<Data>& getData() const { return data_; }

private:
    FEvalIIP();

    ZN_SERIALIZABLE()
    std::string function_;
    std::uint64_t nlhs_;
    boost::shared_ptr<Data> data_;
    quorl::contextmgr::TarnID clientTarnID_;
    quorl::contextmgr::TarnID serverTarnID_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::FEvalIIP, 1)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::FEvalIIP, "cmddistributor::FEvalIIP")
