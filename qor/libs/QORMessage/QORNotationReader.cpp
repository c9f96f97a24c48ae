// RapidJSON's stack adds to a null pointer before it has allocated anything, to find that it has to. That is harmless
// on the machines there are, and clang's sanitizer would stop at it in each run.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"

namespace QOR {
namespace {

/// What is wrong with the input; parse() adds the place.
struct Fault {
    std::string text;
};

[[noreturn]] void refuse(std::string text) {
    throw Fault{std::move(text)};
}

enum class EventKind { Null, Bool, Whole, Number, Text, Key, ObjectStart, ObjectEnd, ArrayStart, ArrayEnd };

/// One step of the JSON reader.
struct Event {
    EventKind kind;
    std::string_view text;   ///< of Text and Key; valid during the call
    std::int64_t whole = 0;  ///< of Whole
    bool truth = false;      ///< of Bool

    bool is(EventKind wanted) const { return kind == wanted; }
};

/// Takes the steps of one document. The readers look alike where they say what each of their states takes: that is the
/// grammar of their documents, and no two are the same. Throws a Fault for a step that has no place there.
class EventReader {
public:
    virtual void take(const Event& event) = 0;

protected:
    ~EventReader() = default;
};

/// RapidJSON's handler interface, turned into one call.
class Adapter {
public:
    explicit Adapter(EventReader& reader) : m_reader(reader) {}

    bool Null() { return pass({EventKind::Null, {}}); }
    bool Bool(bool truth) { return pass({EventKind::Bool, {}, 0, truth}); }
    bool Int(int value) { return pass({EventKind::Whole, {}, value}); }
    bool Uint(unsigned value) { return pass({EventKind::Whole, {}, value}); }
    bool Int64(std::int64_t value) { return pass({EventKind::Whole, {}, value}); }
    bool Uint64(std::uint64_t) { return pass({EventKind::Number, {}}); }
    bool Double(double) { return pass({EventKind::Number, {}}); }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return pass({EventKind::Number, {}}); }
    bool String(const char* text, rapidjson::SizeType size, bool) { return passText(EventKind::Text, {text, size}); }
    bool Key(const char* text, rapidjson::SizeType size, bool) { return passText(EventKind::Key, {text, size}); }
    bool StartObject() { return pass({EventKind::ObjectStart, {}}); }
    bool EndObject(rapidjson::SizeType) { return pass({EventKind::ObjectEnd, {}}); }
    bool StartArray() { return pass({EventKind::ArrayStart, {}}); }
    bool EndArray(rapidjson::SizeType) { return pass({EventKind::ArrayEnd, {}}); }

    /// The step that was handed over last.
    EventKind last() const { return m_last; }

private:
    /// RapidJSON refuses an escaped high surrogate without its low one and decodes a low one alone to bytes that are
    /// not UTF-8; the raw text has been checked.
    bool passText(EventKind kind, std::string_view text) {
        m_last = kind;
        if (!isUtf8(text)) refuse("an escape is one half of a surrogate pair");
        return pass({kind, text});
    }

    bool pass(const Event& event) {
        m_last = event.kind;
        m_reader.take(event);
        return true;
    }

    EventReader& m_reader;
    EventKind m_last = EventKind::Null;
};

/// Where the token begins that the JSON reader has just read up to `end`. Only errors ask, so it reads again.
std::size_t tokenStart(std::string_view json, std::size_t end, EventKind kind) {
    switch (kind) {
        case EventKind::ObjectStart:
        case EventKind::ObjectEnd:
        case EventKind::ArrayStart:
        case EventKind::ArrayEnd:
            return end;  // brackets are reported before they are taken
        case EventKind::Text:
        case EventKind::Key:
            break;
        default: {
            std::size_t start = end;
            while (start > 0 && std::string_view("[{,: \t\r\n").find(json[start - 1]) == std::string_view::npos)
                --start;
            return start;
        }
    }
    std::size_t start = 0;
    for (std::size_t at = 0; at < end; ++at) {
        if (json[at] != '"') continue;
        start = at++;
        while (at < end && json[at] != '"')
            at += json[at] == '\\' ? 2 : 1;
    }
    return start;
}

[[noreturn]] void throwAt(std::size_t offset, const std::string& text) {
    throw QORException(errBadRequest, "invalid message at byte " + std::to_string(offset) + ": " + text,
                       QOR_SOURCE_PATH);
}

/// Reads one JSON document and hands its steps over.
void parse(std::string_view json, EventReader& reader) {
    if (json.size() > std::numeric_limits<rapidjson::SizeType>::max()) throwAt(0, "the text is larger than 4 GiB");
    // Checked as a whole, which is several times faster than what the JSON reader would do for each character.
    if (const std::size_t good = utf8Prefix(json); good < json.size()) throwAt(good, "the text is not UTF-8");
    rapidjson::MemoryStream stream(json.data(), json.size());
    rapidjson::Reader parser;
    Adapter adapter(reader);
    try {
        if (!parser.Parse<rapidjson::kParseIterativeFlag>(stream, adapter)) {
            throwAt(parser.GetErrorOffset(), rapidjson::GetParseError_En(parser.GetParseErrorCode()));
        }
    } catch (const Fault& fault) {
        throwAt(tokenStart(json, stream.Tell(), adapter.last()), fault.text);
    }
    // A NUL byte looks like the end of the text to the reader.
    if (stream.Tell() != json.size()) throwAt(stream.Tell(), "there is more behind the JSON value");
}

/// Builds elements from steps. A list that is open is known by the element that it belongs to, so nothing here
/// grows with the depth.
class ElementReader {
public:
    explicit ElementReader(QORMessage& message) : m_message(message), m_at(message.root()) {}

    /// Expects one element.
    void beginElement() {
        m_single = true;
        m_state = State::Element;
    }
    /// Expects a list of elements.
    void beginList() {
        m_single = false;
        m_state = State::List;
    }

    /// \returns true when the step ended what was begun
    bool take(const Event& event) {
        switch (m_state) {
            case State::List:
                if (!event.is(EventKind::ArrayStart)) refuse("a list of elements is expected");
                m_state = State::NextElement;
                return false;
            case State::Element:
                if (!event.is(EventKind::ArrayStart)) refuse("an element, [tag, ...], is expected");
                m_state = State::Tag;
                return false;
            case State::NextElement:
                return takeElementOrEnd(event);
            case State::Tag:
                takeTag(event);
                return false;
            case State::Value:
                return takeValue(event);
            case State::End:
                if (!event.is(EventKind::ArrayEnd)) refuse("an element holds a tag and one value, nothing more");
                return endElement();
            case State::BinaryKey:
                if (!event.is(EventKind::Key) || event.text != "base64")
                    refuse("a binary value is {\"base64\": \"...\"}");
                m_state = State::BinaryText;
                return false;
            case State::BinaryText:
                takeBinary(event);
                return false;
            case State::BinaryEnd:
                if (!event.is(EventKind::ObjectEnd)) refuse("a binary value has the member \"base64\" alone");
                m_state = State::End;
                return false;
        }
        return false;
    }

private:
    enum class State { List, Element, NextElement, Tag, Value, End, BinaryKey, BinaryText, BinaryEnd };

    bool atRoot() const { return m_at.node()->parent == nullptr; }

    bool takeElementOrEnd(const Event& event) {
        if (event.is(EventKind::ArrayStart)) {
            m_state = State::Tag;
            return false;
        }
        if (!event.is(EventKind::ArrayEnd)) refuse("an element, [tag, ...], is expected");
        m_state = State::End;
        return atRoot();
    }

    void takeTag(const Event& event) {
        const QORTag id = tagOf(event);
        if (m_at.addChild(id) != 0) refuseByLimit();
        m_state = State::Value;
    }

    static QORTag tagOf(const Event& event) {
        if (event.is(EventKind::Text)) {
            const auto id = QORTagDictionary::instance().find(event.text);
            if (!id) refuse("unknown element " + quoteText(event.text));
            return *id;
        }
        if (event.is(EventKind::ArrayEnd)) refuse("an element begins with its tag");
        if (!event.is(EventKind::Whole) || event.whole < 1 || event.whole > std::numeric_limits<QORTag>::max()) {
            refuse("a tag is a name or a whole number from 1 to 4294967295");
        }
        return static_cast<QORTag>(event.whole);
    }

    bool takeValue(const Event& event) {
        switch (event.kind) {
            case EventKind::ArrayEnd:
                return endElement();
            case EventKind::ArrayStart:
                m_state = State::NextElement;
                return false;
            case EventKind::ObjectStart:
                m_state = State::BinaryKey;
                return false;
            case EventKind::Text:
                if (m_at.putValue(event.text) != 0) refuseByLimit();
                m_state = State::End;
                return false;
            case EventKind::Whole:
            case EventKind::Number:
                refuse("values are texts: a number is written in quotes");
            case EventKind::Bool:
            case EventKind::Null:
                refuse("values are texts: true, false and null are none");
            default:
                refuse("a value is a text, a list of elements or {\"base64\": \"...\"}");
        }
    }

    void takeBinary(const Event& event) {
        const auto bytes = event.is(EventKind::Text) ? parseBase64(event.text) : std::nullopt;
        if (!bytes) refuse("the member \"base64\" is not a base64 text");
        if (m_at.putBinary(bytes->data(), bytes->size()) != 0) refuseByLimit();
        m_state = State::BinaryEnd;
    }

    bool endElement() {
        m_at.seekUp();
        m_state = State::NextElement;
        return m_single && atRoot();
    }

    [[noreturn]] void refuseByLimit() const {
        const QORMessageLimits& limits = m_message.limits();
        if (m_at.node()->depth >= limits.depth && m_state == State::Tag) {
            refuse("elements are nested deeper than " + std::to_string(limits.depth) + " levels");
        }
        if (!m_message.refusal().empty()) refuse(m_message.refusal());
        if (m_state == State::Tag) refuse("there are more than " + std::to_string(limits.nodes) + " elements");
        refuse("the values are larger than " + std::to_string(limits.bytes) + " bytes together");
    }

    QORMessage& m_message;
    QORBinaryIterator m_at;
    State m_state = State::Element;
    bool m_single = true;
};

/// Which members of an object were given.
class Members {
public:
    using Names = std::span<const std::string_view>;

    /// The index of the name; refuses names that are unknown or given twice.
    std::size_t take(Names names, std::string_view name) {
        const auto index = static_cast<std::size_t>(std::find(names.begin(), names.end(), name) - names.begin());
        if (index == names.size()) refuse("unknown member " + quoteText(name));
        if (has(index)) refuse("member " + quoteText(name) + " is given twice");
        m_given |= 1U << index;
        return index;
    }

    /// Refuses the object when one of these names was not given; they are the first ones of those it may have.
    void require(Names names) const {
        for (std::size_t index = 0; index < names.size(); ++index) {
            if (!has(index)) refuse("member " + quoteText(names[index]) + " is missing");
        }
    }

    void clear() { m_given = 0; }

private:
    bool has(std::size_t index) const { return (m_given >> index & 1U) != 0; }

    unsigned m_given = 0;
};

std::string textOf(const Event& event, const char* member) {
    if (!event.is(EventKind::Text)) refuse("member " + quoteText(member) + " is not a text");
    return std::string(event.text);
}

int intOf(const Event& event, const char* member) {
    if (!event.is(EventKind::Whole) || event.whole < std::numeric_limits<int>::min() ||
        event.whole > std::numeric_limits<int>::max()) {
        refuse("member " + quoteText(member) + " is not an integer of 32 bits");
    }
    return static_cast<int>(event.whole);
}

QOREID eidOf(const Event& event) {
    if (event.is(EventKind::Null)) return {};
    const std::string text = textOf(event, "eid");
    if (text.empty()) return {};
    const auto guid = QORGUIDBase::parse(text);
    if (!guid) refuse("member \"eid\": " + quoteText(text) + " is not a GUID");
    return QOREID(*guid);
}

void expectObject(const Event& event, const char* what) {
    if (!event.is(EventKind::ObjectStart)) refuse(std::string(what) + " is not an object");
}

/// The member "client".
class ClientReader {
public:
    explicit ClientReader(QORClientDescription& client) : m_client(client) {}

    /// \returns true when the step ended the object
    bool take(const Event& event) {
        switch (m_state) {
            case State::Start:
                expectObject(event, "member \"client\"");
                m_state = State::Member;
                return false;
            case State::Member:
                return takeMember(event);
            case State::FullAccess:
                if (!event.is(EventKind::Bool)) refuse("member \"fullAccess\" is neither true nor false");
                m_client.fullAccess = event.truth;
                m_state = State::Member;
                return false;
            case State::Sids:
                if (!event.is(EventKind::ArrayStart)) refuse("member \"sids\" is not a list");
                m_state = State::Sid;
                return false;
            case State::Sid:
                takeSid(event);
                return false;
            case State::SidMember:
                takeSidMember(event);
                return false;
            default:
                takeSidValue(event);
                return false;
        }
    }

private:
    enum class State { Start, Member, FullAccess, Sids, Sid, SidMember, PrincipalId, PrincipalType, Eid };

    bool takeMember(const Event& event) {
        static constexpr std::string_view names[] = {"fullAccess", "sids"};
        if (event.is(EventKind::ObjectEnd)) return true;
        m_state = m_members.take(names, event.text) == 0 ? State::FullAccess : State::Sids;
        return false;
    }

    void takeSid(const Event& event) {
        if (event.is(EventKind::ArrayEnd)) {
            m_state = State::Member;
            return;
        }
        expectObject(event, "an identity of \"sids\"");
        m_client.sids.emplace_back();
        m_sidMembers.clear();
        m_state = State::SidMember;
    }

    void takeSidMember(const Event& event) {
        static constexpr std::string_view names[] = {"principalId", "principalType", "eid"};
        static constexpr State states[] = {State::PrincipalId, State::PrincipalType, State::Eid};
        m_state = event.is(EventKind::ObjectEnd) ? State::Sid : states[m_sidMembers.take(names, event.text)];
    }

    void takeSidValue(const Event& event) {
        auto& sid = m_client.sids.back();
        if (m_state == State::PrincipalId) sid.principalId = intOf(event, "principalId");
        if (m_state == State::PrincipalType) sid.principalType = intOf(event, "principalType");
        if (m_state == State::Eid) sid.eid = eidOf(event);
        m_state = State::SidMember;
    }

    QORClientDescription& m_client;
    State m_state = State::Start;
    Members m_members;
    Members m_sidMembers;
};

// Envelopes of requests and of answers are read in the same manner, a state a member: each reader's switch is the list
// of its own members, and a shared one would hide what belongs to which.
class RequestReader final : public EventReader {
public:
    explicit RequestReader(QORRequestEnvelope& request) : m_request(request), m_body(request.body) {}

    void take(const Event& event) override {
        switch (m_state) {
            case State::Start:
                expectObject(event, "a request");
                m_state = State::Member;
                return;
            case State::Member:
                takeMember(event);
                return;
            case State::Operator:
                m_request.operatorName = textOf(event, "operator");
                m_state = State::Member;
                return;
            case State::Request:
                m_request.requestName = textOf(event, "request");
                m_state = State::Member;
                return;
            case State::Body:
                if (m_body.take(event)) m_state = State::Member;
                return;
            case State::Client:
                if (m_client->take(event)) m_state = State::Member;
                return;
        }
    }

private:
    enum class State { Start, Member, Operator, Request, Body, Client };

    void takeMember(const Event& event) {
        static constexpr std::string_view names[] = {"operator", "request", "body", "client"};
        static constexpr State states[] = {State::Operator, State::Request, State::Body, State::Client};
        constexpr std::size_t required = 3;
        if (event.is(EventKind::ObjectEnd)) {
            m_members.require(Members::Names(names).first(required));
            return;
        }
        m_state = states[m_members.take(names, event.text)];
        if (m_state == State::Body) m_body.beginElement();
        if (m_state == State::Client) m_client.emplace(m_request.client.emplace());
    }

    QORRequestEnvelope& m_request;
    ElementReader m_body;
    std::optional<ClientReader> m_client;
    State m_state = State::Start;
    Members m_members;
};

class ResponseReader final : public EventReader {
public:
    explicit ResponseReader(QORResponse& response) : m_response(response), m_elements(response.response) {}

    void take(const Event& event) override {
        switch (m_state) {
            case State::Start:
                expectObject(event, "an answer");
                m_state = State::Member;
                return;
            case State::Member:
                takeMember(event);
                return;
            case State::Response:
                if (m_elements.take(event)) m_state = State::Member;
                return;
            case State::Error:
                expectObject(event, "member \"error\"");
                m_response.error.emplace();
                m_state = State::ErrorMember;
                return;
            case State::ErrorMember:
                takeErrorMember(event);
                return;
            default:
                takeErrorValue(event);
                return;
        }
    }

private:
    enum class State {
        Start,
        Member,
        Response,
        Error,
        ErrorMember,
        Code,
        Message,
        MessageKey,
        MessageBytes,
        MessageEnd
    };

    void takeMember(const Event& event) {
        static constexpr std::string_view names[] = {"response", "error"};
        if (event.is(EventKind::ObjectEnd)) {
            m_members.require(Members::Names(names).first(1));
            return;
        }
        m_state = m_members.take(names, event.text) == 0 ? State::Response : State::Error;
        if (m_state == State::Response) m_elements.beginList();
    }

    void takeErrorMember(const Event& event) {
        static constexpr std::string_view names[] = {"code", "message"};
        if (event.is(EventKind::ObjectEnd)) {
            m_errorMembers.require(names);
            m_state = State::Member;
            return;
        }
        m_state = m_errorMembers.take(names, event.text) == 0 ? State::Code : State::Message;
    }

    /// The code, or the message, which is an object where its bytes are not UTF-8.
    void takeErrorValue(const Event& event) {
        auto& error = *m_response.error;
        if (m_state == State::Code) {
            error.code = intOf(event, "code");
            m_state = State::ErrorMember;
        } else if (m_state == State::Message && event.is(EventKind::ObjectStart)) {
            m_state = State::MessageKey;
        } else if (m_state == State::Message) {
            error.message = textOf(event, "message");
            m_state = State::ErrorMember;
        } else if (m_state == State::MessageKey) {
            if (!event.is(EventKind::Key) || event.text != "base64") refuse("member \"message\" is not a text");
            m_state = State::MessageBytes;
        } else if (m_state == State::MessageBytes) {
            auto bytes = event.is(EventKind::Text) ? parseBase64(event.text) : std::nullopt;
            if (!bytes) refuse("the member \"base64\" is not a base64 text");
            error.message = std::move(*bytes);
            m_state = State::MessageEnd;
        } else {
            if (!event.is(EventKind::ObjectEnd)) refuse("member \"message\" is not a text");
            m_state = State::ErrorMember;
        }
    }

    QORResponse& m_response;
    ElementReader m_elements;
    State m_state = State::Start;
    Members m_members;
    Members m_errorMembers;
};

class SingleElementReader final : public EventReader {
public:
    explicit SingleElementReader(QORMessage& message) : m_element(message) { m_element.beginElement(); }
    void take(const Event& event) override { m_element.take(event); }

private:
    ElementReader m_element;
};

}  // namespace

QORRequestEnvelope readRequest(std::string_view json, const QORMessageLimits& limits) {
    QORRequestEnvelope request{{}, {}, QORMessage(limits), {}};
    RequestReader reader(request);
    parse(json, reader);
    return request;
}

void readElement(std::string_view json, QORMessage& out) {
    SingleElementReader reader(out);
    QORBinaryIterator root = out.root();
    const auto mark = root.mark();
    try {
        parse(json, reader);
    } catch (...) {
        root.dropChildrenAfter(mark);
        throw;
    }
}

QORResponse readResponse(std::string_view json, const QORMessageLimits& limits) {
    QORResponse response{QORMessage(limits), {}};
    ResponseReader reader(response);
    parse(json, reader);
    return response;
}

}  // namespace QOR
