#pragma once
// FEvalRunner: the runner of "cmddistributor::feval_plugin" packets (cmddistributor::FEvalIIP).
// It tells the arguments' deleters which context runs the call, rebuilds the arguments
// (getInputArguments; EDI values are converted to arrays of the language), calls the named
// function of the reference language (a built-in, a function file, or a function defined at run
// time, in the interpreter that eval packets of the context use) with nlhs outputs, and
// completes with the packet's createEvent: with EDI values when the client asked for them
// (isOutputConvertedFromEDI), else with the arrays. An error of the language completes the packet
// with a RuntimeException of status 2 holding message, identifier, stack and causes.
//
// Ownership and threads: as EvalRunner; the rebuilt arguments and the results are the runner's
// and are destroyed by it once the event holds what it needs. Throws PacketInterrupted,
// RuntimeException, or std::invalid_argument for a packet that is not a function call.
#include <quorl/host/packetrunner.hpp>

namespace quorl {
namespace host {

class FEvalRunner : public PacketRunner {
public:
    boost::shared_ptr<::cmddistributor::IIPCompletedEvent> run(PacketExecution& execution) override;
};

} // namespace host
} // namespace quorl
