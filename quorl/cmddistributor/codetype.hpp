#pragma once
// CodeType: how the code string of an eval packet is to be taken. 32-bit; travels as an int.
// codeTypeName gives the name a packet's text form prints, and an empty string for a value
// outside the enumeration. Plain values; any thread; nothing throws.
#include <cstdint>

namespace cmddistributor {

enum CodeType : std::int32_t {
    CodeBlockType = 0,
    ScriptType = 1,
    ConventionalType = 2,
    UndefinedCodeType = 3,
};

inline char const* codeTypeName(CodeType type) {
    switch (type) {
    case CodeBlockType:
        return "CodeBlockType";
    case ScriptType:
        return "ScriptType";
    case ConventionalType:
        return "ConventionalType";
    case UndefinedCodeType:
        return "Undefined";
    }
    return "";
}

} // namespace cmddistributor
