#include <quorl/host/fevalrunner.hpp>

#include <quorl/host/evalrunner.hpp>
#include <quorl/host/packetexecution.hpp>
#include <quorl/host/packetinterrupted.hpp>

#include <quorl/cmddistributor/fevalarrays.hpp>
#include <quorl/cmddistributor/fevaliip.hpp>
#include <quorl/language/customworkspaceadapter.hpp>
#include <quorl/language/interpreter.hpp>

#include <stdexcept>

namespace quorl {
namespace host {

using ::cmddistributor::IIPCompletedEvent;

namespace {

// Arrays the runner owns, destroyed however the call ends.
struct OwnedArrays {
    std::vector<const hvArray*> arrays;
    ~OwnedArrays() { cmddistributor::detail::nullSafeHvConstVecDestroy(arrays); }
};

struct OwnedResults {
    std::vector<hvArray*> arrays;
    ~OwnedResults() { cmddistributor::detail::nullSafeHvVecDestroy(arrays); }
};

} // namespace

boost::shared_ptr<IIPCompletedEvent> FEvalRunner::run(PacketExecution& execution) {
    auto packet = boost::dynamic_pointer_cast<::cmddistributor::FEvalIIP>(execution.getIIP());
    if (!packet)
        throw std::invalid_argument("not a function-call packet.");
    packet->setDeleters(execution.getFennID());

    OwnedArrays arguments;
    auto inputs = packet->getInputArguments();
    if (auto* arrays = boost::get<std::vector<const hvArray*>>(&inputs)) {
        arguments.arrays.swap(*arrays);
    } else {
        auto const& values = *boost::get<cmddistributor::EDIDataWrapper>(inputs).getData();
        arguments.arrays.reserve(values.size());
        for (auto const& value : values)
            arguments.arrays.push_back(language::fromExternal(value).release());
    }

    language::EvalIo io;
    io.interrupt = &execution.interruptFlag();
    std::vector<HvArrayPtr> outputs;
    try {
        outputs = EvalRunner::threadInterpreter().callFunction(
            packet->getFunctionName(), static_cast<int>(packet->getNlhs()), arguments.arrays, io);
    } catch (language::InterruptedError const&) {
        throw PacketInterrupted();
    } catch (language::LanguageError const& e) {
        throw EvalRunner::toRuntimeException(e);
    }

    if (packet->isOutputConvertedFromEDI()) {
        std::vector<foundation::extdata::Array> values;
        values.reserve(outputs.size());
        for (auto const& output : outputs)
            values.push_back(language::toExternal(output.get()));
        return packet->createEvent(execution.getId(), std::move(values));
    }
    OwnedResults results;
    results.arrays.reserve(outputs.size());
    for (auto& output : outputs)
        results.arrays.push_back(output.release());
    return packet->createEvent(execution.getId(), results.arrays);
}

} // namespace host
} // namespace quorl
