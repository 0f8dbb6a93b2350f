#include <quorl/language/refbox.hpp>

#include <quorl/language/languageerror.hpp>

#include <mutex>

namespace quorl {
namespace language {

namespace {
char const* const kProperties[] = {"Value", "Label"};
}

void registerRefBoxClass() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (hvIsClassDefined("RefBox")) {
            return;
        }
        hvClassDef def;
        def.name = "RefBox";
        def.properties = kProperties;
        def.nproperties = 2;
        def.handle = true;
        def.serializable = false;
        hvDefineClass(def);
    });
}

Value makeRefBox(Value const& value, Value const& label) {
    registerRefBoxClass();
    hvArray* box = hvCreateClassArray("RefBox", 1, 1);
    if (box == nullptr) {
        throw LanguageError(errid::internal, "The RefBox class is not available.");
    }
    Value r = Value::adopt(box);
    hvSetProperty(r.mutableHv(), 0, "Value", value.hv());
    hvSetProperty(r.mutableHv(), 0, "Label", label.hv());
    return r;
}

} // namespace language
} // namespace quorl
