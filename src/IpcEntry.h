// What the entries of IpcRequests.h and IpcCallbacks.h are made of.
#ifndef VELOCAST_IPCENTRY_H
#define VELOCAST_IPCENTRY_H

#include <cstddef>
#include <cstring>
#include <functional>
#include <type_traits>

#include "IpcBasic.h"

// The reply to a message, from what its operation does.
enum class IpcAnswer {
    True,    // BOOL true, whatever the operation did
    Bool,    // BOOL: its result
    Int,     // INT: its result
    Text,    // MSG: the text that it wrote
    Result,  // BOOL true when it succeeded, else EXPT: the reason that it wrote
};

// When the server executes a request.
enum class IpcTurn {
    InOrder,
    Urgent,  // before its turn while an export runs: a shutdown needs it
    Export,  // may run for hours, on a thread of its own
};

// =================================================================================================
// Fields as arguments
// =================================================================================================

// A text that a peer sent, as an argument of an operation.  Overwritten at its end: it may be a
// password.
class CIpcText {
public:
    template <std::size_t N>
    explicit CIpcText(const char (&cField)[N]) : m_sText(GetIpcText(cField)) {}
    ~CIpcText() { explicit_bzero(m_sText.data(), m_sText.size()); }
    CIpcText(const CIpcText&) = delete;
    CIpcText& operator=(const CIpcText&) = delete;

    // Implicit, so that it stands where an operation takes a text; good as long as this object.
    operator char*() { return m_sText.data(); }

private:
    std::string m_sText;
};

template <auto FIELD, typename Structure>
using IpcFieldType = std::remove_cvref_t<decltype(std::declval<Structure&>().*FIELD)>;

// Copied byte by byte: a 64-bit field lies on a 4-byte boundary, and a bool that a peer sent may be
// any byte.
template <auto FIELD, typename Structure>
auto ReadIpcField(const Structure& message) {
    using Field = IpcFieldType<FIELD, Structure>;
    if constexpr (std::is_array_v<Field>) {
        return CIpcText(message.*FIELD);
    } else if constexpr (std::is_same_v<Field, bool>) {
        unsigned char c = 0;
        std::memcpy(&c, &(message.*FIELD), sizeof(c));
        return c != 0;
    } else {
        Field value{};
        std::memcpy(&value, &(message.*FIELD), sizeof(value));
        return value;
    }
}

// False when a text was cut to fit.
template <auto FIELD, typename Structure, typename Argument>
bool WriteIpcField(Structure* pMessage, const Argument& argument) {
    using Field = IpcFieldType<FIELD, Structure>;
    if constexpr (std::is_array_v<Field>) {
        return SetIpcText(pMessage->*FIELD, argument);
    } else {
        const auto value = static_cast<Field>(argument);
        std::memcpy(&(pMessage->*FIELD), &value, sizeof(value));
        return true;
    }
}

// =================================================================================================
// Entries
// =================================================================================================

// One message: its structure, the reply, the operation that the receiver calls, and the fields in
// the order in which that operation takes them as arguments.
template <typename StructureType, IpcAnswer ANSWER_KIND, auto OPERATION_POINTER, auto... FIELDS>
struct IpcEntry {
    using Structure = StructureType;
    static constexpr std::size_t SIZE = sizeof(Structure);
    static constexpr IpcAnswer ANSWER = ANSWER_KIND;
    static constexpr auto OPERATION = OPERATION_POINTER;
    static constexpr IpcTurn TURN = IpcTurn::InOrder;
    static constexpr bool LISTING = false;

    // Fills the fields.  The size of the first one whose text was cut, 0 when all fit.
    template <typename... Arguments>
    static std::size_t Fill(Structure* pMessage, const Arguments&... arguments) {
        static_assert(sizeof...(Arguments) == sizeof...(FIELDS), "one argument per field");
        std::size_t iCut = 0;
        [[maybe_unused]] const auto note = [&iCut](bool bFits, std::size_t iSize) {
            if (!bFits && iCut == 0) {
                iCut = iSize;
            }
        };
        (note(WriteIpcField<FIELDS>(pMessage, arguments), sizeof(pMessage->*FIELDS)), ...);
        return iCut;
    }

    // The operation with the fields; more are arguments that follow them.
    template <typename Object, typename... More>
    static auto Call([[maybe_unused]] const Structure& message, Object* pObject, More... more) {
        return std::invoke(OPERATION, pObject, ReadIpcField<FIELDS>(message)..., more...);
    }
};

// A request whose lines go to the process that asked, which its field cIpcID names: the operation
// takes runtime parameters made of that, and then the other fields.
template <typename StructureType, IpcAnswer ANSWER_KIND, auto OPERATION_POINTER, auto... FIELDS>
struct IpcListingEntry : IpcEntry<StructureType, ANSWER_KIND, OPERATION_POINTER, FIELDS...> {
    using Entry = IpcEntry<StructureType, ANSWER_KIND, OPERATION_POINTER, FIELDS...>;
    static constexpr bool LISTING = true;

    template <typename... Arguments>
    static std::size_t Fill(StructureType* pMessage, const char* pcIpcID,
                            const Arguments&... arguments) {
        const bool bFits = WriteIpcField<&StructureType::cIpcID>(pMessage, pcIpcID);
        const std::size_t iCut = Entry::Fill(pMessage, arguments...);
        return bFits ? iCut : sizeof(pMessage->cIpcID);
    }

    template <typename Object>
    static auto Call(const StructureType& message, Object* pObject, CRuntimeParam* pRuntimeParam) {
        return std::invoke(OPERATION_POINTER, pObject, pRuntimeParam,
                           ReadIpcField<FIELDS>(message)...);
    }

    // Whether there are lines: always, where the request cannot say.
    static bool HasLines([[maybe_unused]] const StructureType& message) {
        if constexpr (requires { message.bPrintDetails; }) {
            return ReadIpcField<&StructureType::bPrintDetails>(message);
        } else {
            return true;
        }
    }
};

// One of the operations of a name: IpcOverload<int, bool>(&Class::Operation) is the one that takes
// these.
template <typename... Parameters>
struct IpcOverloadOf {
    template <typename Object, typename Return>
    constexpr auto operator()(Return (Object::*pOperation)(Parameters...)) const {
        return pOperation;
    }
};
template <typename... Parameters>
inline constexpr IpcOverloadOf<Parameters...> IpcOverload{};

// =================================================================================================
// Passwords
// =================================================================================================

// Overwrites the password of a structure that has one.
template <typename Structure>
void WipeIpcPassword([[maybe_unused]] Structure* pMessage) {
    if constexpr (requires { pMessage->cPwd; }) {
        explicit_bzero(pMessage->cPwd, sizeof(pMessage->cPwd));
    }
}

// The same where a buffer holds it.
template <typename Structure>
void WipeIpcPassword([[maybe_unused]] IpcDataBuf* pData) {
    if constexpr (requires(Structure message) { message.cPwd; }) {
        explicit_bzero(pData->cBuf + offsetof(Structure, cPwd), sizeof(Structure::cPwd));
    }
}

#endif
