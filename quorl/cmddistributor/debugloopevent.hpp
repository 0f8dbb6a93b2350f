#pragma once
// DebugLoopEvent: an interpreter entered or left a debugging prompt. Carries the request id of
// the context that raised it. Immutable once published; user tags allowed.
#include <quorl/cmddistributor/requestidadapter.hpp>

#include <foundation/msg_svc/eventmgr/baseevent.hpp>

namespace quorl {
namespace prompt {
// Which prompt asks for input. The host gives the numbers their meaning.
enum InputRequester : std::int32_t { CommandPrompt = 0, DebugPrompt = 1, InputPrompt = 2 };
} // namespace prompt
} // namespace quorl

namespace cmddistributor {

class DebugLoopEvent : public foundation::msg_svc::eventmgr::BaseEvent, public RequestIdAdapter {
public:
    typedef foundation::msg_svc::eventmgr::BaseEvent EventBaseType;
    static ustring eventTypeName() { return u"cmddistributor::DebugLoopEvent"; }

    // Entered or left. The host gives the numbers their meaning.
    enum State : std::int32_t { Entered = 0, Left = 1 };

    DebugLoopEvent(State state, quorl::prompt::InputRequester loop);
    ~DebugLoopEvent() override;

    foundation::msg_svc::eventmgr::BaseEvent* clone() const override;
    std::ostream& fillStream(std::ostream& os) const override;

    State getLoopState() const { return state_; }
    quorl::prompt::InputRequester getWhichDebugLoop() const { return loop_; }
    bool fieldsEqual(DebugLoopEvent const& o) const {
        return state_ == o.state_ && loop_ == o.loop_ && getRequestId() == o.getRequestId();
    }

protected:
    DebugLoopEvent();
    DebugLoopEvent(DebugLoopEvent const&) = default;
    DebugLoopEvent(boost::shared_ptr<foundation::msg_svc::eventmgr::TypeInformation> const& info,
                   State state, quorl::prompt::InputRequester loop);

private:
    ZN_SERIALIZABLE()
    State state_;
    quorl::prompt::InputRequester loop_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::DebugLoopEvent, 1)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::DebugLoopEvent, "cmddistributor::DebugLoopEvent")
