// Writes the golden archives of cmddistributor::PackagedTaskCompletedEvent (version 2) into the
// folder given as the only argument, in text, XML and binary form, through a BaseEvent pointer
// ("event") as the exchange writes it: one with an int result, one with an error and no result.
// A task's completion is never read back: the archives pin the form that is written and the
// refusal on reading. Run it only when a new version is added.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/packagedtaskcompletedevent.hpp>

#include <tests/golden/goldenwriter.hpp>

using cmddistributor::PackagedTaskCompletedEvent;
using foundation::msg_svc::eventmgr::BaseEvent;

int main(int argc, char** argv) {
    return quorl_golden::generatorMain(argc, argv, [](std::string const& folder) {
        foundation::msg_svc::exchange::IDType const id(1234567, 1001);
        PackagedTaskCompletedEvent const withInt(id, boost::any(42));
        PackagedTaskCompletedEvent const withError(
            id, cmddistributor::RuntimeException(quorl::cmddistributor::ExecutionError,
                                                 std::string("task failed"), "", "", {}, {}));
        quorl_golden::writeArchives(folder + "/packagedtaskcompletedevent_v2_int", "event",
                                    static_cast<BaseEvent const*>(&withInt));
        quorl_golden::writeArchives(folder + "/packagedtaskcompletedevent_v2_error", "event",
                                    static_cast<BaseEvent const*>(&withError));
    });
}
