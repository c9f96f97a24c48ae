#include "rdbmspp/sql/ASData.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <utility>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"
#include "rdbmspp/engine/ASValue.h"
#include "rdbmspp/sql/ASNodes.h"

namespace QOR {

namespace {

constexpr std::size_t dbTimeLength = 19;  // "YYYY-MM-DD HH:MM:SS"
constexpr std::size_t guidLength = 36;

std::string_view copyTo(ASTextBuffer& scratch, std::string_view text) {
    std::memcpy(scratch.bytes, text.data(), text.size());
    return {scratch.bytes, text.size()};
}

template <class T>
std::string_view printTo(ASTextBuffer& scratch, T value) {
    const auto end = std::to_chars(scratch.bytes, scratch.bytes + sizeof(scratch.bytes), value).ptr;
    return {scratch.bytes, static_cast<std::size_t>(end - scratch.bytes)};
}

template <class T>
bool readWholly(std::string_view text, T& value) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// "NUMBER*2^720" is how ASDialect::exactDouble() selects large numbers.
bool readDouble(std::string_view text, double& value) {
    constexpr std::string_view scaled = "*2^720";
    const bool large = text.ends_with(scaled);
    if (large) text.remove_suffix(scaled.size());
    if (!readWholly(text, value)) return false;
    if (large) value = std::ldexp(value, 720);
    return std::isfinite(value);
}

/// Counts before it decides: nearly every text that is asked about is a GUID, and a loop that never leaves early is
/// the faster one.
bool isCanonicalGuid(std::string_view text) {
    if (text.size() != guidLength) return false;
    if (text[8] != '-' || text[13] != '-' || text[18] != '-' || text[23] != '-') return false;
    std::uint8_t digits = 0;
    for (std::size_t i = 0; i < guidLength; ++i) {
        const auto c = static_cast<std::uint8_t>(text[i]);
        const bool decimal = static_cast<std::uint8_t>(c - '0') < 10;
        const bool letter = static_cast<std::uint8_t>(c - 'a') < 6;
        digits = static_cast<std::uint8_t>(digits + (decimal | letter));
    }
    return digits == guidLength - 4;
}

}  // namespace

ASData::~ASData() = default;

std::string ASData::Str() const {
    ASTextBuffer scratch;
    return std::string(text(scratch));
}

std::string ASData::asSQLLiteral(const ASDialect& dialect) const {
    std::string out;
    valueOf(*this).appendLiteral(out, dialect);
    return out;
}

// The attribute does not own a receiver bound in this way; the cell that made both does.
void ASData::Bind(ASAttribute& attribute) {
    auto& receiver = attribute.m_impl->data;
    if (receiver.get() != this) receiver = ASDataPtr(ASDataPtr(), this);
}

ASText::ASText(ASType type, std::size_t capacity, std::string_view value)
    : ASData(type), m_capacity(capacity), m_value(value) {
    m_raw = m_value;
    m_state = State::Value;
}

std::string_view ASText::text(ASTextBuffer&) const {
    return isNull() ? std::string_view() : m_raw;
}

void ASText::take(std::string_view stored) {
    m_raw = stored;
    m_state = State::Value;
}

ASInt::ASInt(std::int32_t value) : ASData(ASType::Int), m_value(value) {
    m_state = State::Value;
}

std::string_view ASInt::text(ASTextBuffer& scratch) const {
    if (m_state == State::Value) return printTo(scratch, m_value);
    return isNull() ? std::string_view() : m_raw;
}

void ASInt::take(std::string_view stored) {
    m_raw = stored;
    m_state = readWholly(stored, m_value) ? State::Value : State::Raw;
}

ASInt64::ASInt64(std::int64_t value) : ASData(ASType::BigInt), m_value(value) {
    m_state = State::Value;
}

std::string_view ASInt64::text(ASTextBuffer& scratch) const {
    if (m_state == State::Value) return printTo(scratch, m_value);
    return isNull() ? std::string_view() : m_raw;
}

void ASInt64::take(std::string_view stored) {
    m_raw = stored;
    m_state = readWholly(stored, m_value) ? State::Value : State::Raw;
}

ASDouble::ASDouble(double value) : ASData(ASType::Double), m_value(value) {
    m_state = State::Value;
}

ASDouble::ASDouble(double value, std::string spelled) : ASDouble(value) {
    m_spelled = std::move(spelled);
}

std::string_view ASDouble::text(ASTextBuffer& scratch) const {
    if (m_state == State::Value) return copyTo(scratch, doubleToStr(m_value));
    return isNull() ? std::string_view() : m_raw;
}

// "NUMBER=" is how ASDialect::exactDecimal() selects what is more than a double holds.
void ASDouble::take(std::string_view stored) {
    if (stored.ends_with('=')) {
        m_raw = stored.substr(0, stored.size() - 1);
        m_state = State::Raw;
        return;
    }
    m_raw = stored;
    m_state = readDouble(stored, m_value) ? State::Value : State::Raw;
}

ASGuid::ASGuid(const Guid& value) : ASData(ASType::Guid), m_value(value) {
    m_state = State::Value;
}

const Guid& ASGuid::value() const noexcept {
    if (m_unread) m_value.fromString(m_raw);
    m_unread = false;
    return m_value;
}

std::string_view ASGuid::text(ASTextBuffer& scratch) const {
    if (isNull()) return {};
    if (m_unread || m_state == State::Raw) return m_raw;
    m_value.write(scratch.bytes);
    return {scratch.bytes, guidLength};
}

void ASGuid::take(std::string_view stored) {
    m_raw = stored;
    m_unread = isCanonicalGuid(stored);
    m_state = m_unread || m_value.fromString(stored) ? State::Value : State::Raw;
}

ASRealBlob::ASRealBlob(RealBlob value) : ASData(ASType::Blob), m_value(std::move(value)) {
    m_raw = {m_value.data(), m_value.size()};
    m_state = State::Value;
}

std::string_view ASRealBlob::text(ASTextBuffer&) const {
    return isNull() ? std::string_view() : m_raw;
}

void ASRealBlob::take(std::string_view stored) {
    m_raw = stored;
    m_state = State::Value;
}

ASTime::ASTime(std::int64_t seconds) : ASData(ASType::DateTime), m_value(seconds) {
    m_state = State::Value;
}

std::string_view ASTime::text(ASTextBuffer& scratch) const {
    if (isNull()) return {};
    if (m_state == State::Raw) return m_raw;
    if (m_raw.size() == dbTimeLength && m_raw[10] == ' ') {  // a fetched value of the database's own form
        std::memcpy(scratch.bytes, m_raw.data(), dbTimeLength);
        scratch.bytes[10] = 'T';
        std::memcpy(scratch.bytes + dbTimeLength, "+0000", 5);
        return {scratch.bytes, dbTimeLength + 5};
    }
    return copyTo(scratch, time2str(m_value));
}

void ASTime::take(std::string_view stored) {
    m_raw = stored;
    const auto seconds = parseTime(stored);
    m_value = seconds.value_or(-1);
    m_state = seconds ? State::Value : State::Raw;
}

ASValue valueOf(const ASData& data) {
    if (data.isNull()) return {};
    ASTextBuffer scratch;
    if (data.isRaw()) return ASValue::ofText(data.text(scratch));
    switch (data.type()) {
        case ASType::Int:
            return ASValue::ofInteger(static_cast<const ASInt&>(data).value());
        case ASType::BigInt:
            return ASValue::ofInteger(static_cast<const ASInt64&>(data).value());
        case ASType::Double: {
            ASValue value;
            value.kind = ASValue::Kind::Real;
            value.real = static_cast<const ASDouble&>(data).value();
            value.text = static_cast<const ASDouble&>(data).m_spelled;
            return value;
        }
        case ASType::DateTime:
            return ASValue::ofText(time2dbstr(static_cast<const ASTime&>(data).value()));
        case ASType::Blob: {
            ASValue value = ASValue::ofText(data.text(scratch));
            value.kind = ASValue::Kind::Binary;
            return value;
        }
        case ASType::VarChar:
        case ASType::Char:
        case ASType::Guid:
            return ASValue::ofText(data.text(scratch));
    }
    return {};
}

}  // namespace QOR
