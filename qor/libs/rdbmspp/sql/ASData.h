/// \file
/// The ASData family: typed values that go into conditions and receive what a cursor fetches.
///
/// A data object is shared between the cell that made it and the attribute it is bound to, and is used by one thread
/// at a time. A fetched value that cannot be read as the object's type keeps the text it was stored as (isRaw()).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"

namespace QOR {

class ASAttribute;
class ASComparison;
struct ASDialect;
struct ASValue;

/// Bytes of a binary value. Owns them.
class RealBlob {
public:
    RealBlob() = default;
    RealBlob(const void* data, std::size_t size) : m_bytes(static_cast<const char*>(data), size) {}
    const char* data() const noexcept { return m_bytes.data(); }
    std::size_t size() const noexcept { return m_bytes.size(); }

private:
    std::string m_bytes;
};

/// Types of columns and values. Contract: never renumber.
enum class ASType : int {
    VarChar = 1,
    Int = 3,
    Double = 4,
    Char = 5,
    BigInt = 16,
    Guid = 86,
    Blob = 95,
    DateTime = 100,
};

/// A GUID as a database value.
using Guid = QORGUIDBase;

/// Room for the text form of any value that is not itself a text.
struct ASTextBuffer {
    char bytes[64];
};

class QOR_API ASData {
public:
    virtual ~ASData();
    ASData(const ASData&) = delete;
    ASData& operator=(const ASData&) = delete;

    ASType type() const noexcept { return m_type; }
    bool isNull() const noexcept { return m_state == State::Null; }
    /// The stored value was of another form than the type; text() gives it as it stands.
    bool isRaw() const noexcept { return m_state == State::Raw; }

    /// The text form of the value, "" for null: numbers in decimal (doubles shortest), GUIDs in lower case with
    /// hyphens, times "YYYY-MM-DDTHH:MM:SS+0000", blobs their bytes. Valid until the next fetch or change; `scratch`
    /// must live as long.
    virtual std::string_view text(ASTextBuffer& scratch) const = 0;
    std::string Str() const;
    /// The same as it was fetched; of what was fetched and is not null. Valid as text() is.
    std::string_view fetched() const noexcept { return m_raw; }

    /// The value as the statement's text has to hold it: a quoted literal or a number; NULL for null.
    std::string asSQLLiteral(const ASDialect& dialect) const;

    /// Takes what the database returned for one row, as text (blobs: as bytes). The bytes stay where they are until
    /// the next fetch. An aggregate's value that is a number of another size than the type's is an AException.
    virtual void take(std::string_view stored) = 0;
    void setNull() noexcept { m_state = State::Null; }

    /// Makes this object the receiver of the attribute's column.
    void Bind(ASAttribute& attribute);

    /// Conditions between two values.
    static ASComparison EQ(const ASData& left, const ASData& right);
    static ASComparison NE(const ASData& left, const ASData& right);
    static ASComparison GT(const ASData& left, const ASData& right);
    static ASComparison GE(const ASData& left, const ASData& right);
    static ASComparison LT(const ASData& left, const ASData& right);
    static ASComparison LE(const ASData& left, const ASData& right);

protected:
    enum class State : std::uint8_t { Null, Value, Raw };
    explicit ASData(ASType type) noexcept : m_type(type) {}

    ASType m_type;
    State m_state = State::Null;
    std::string_view m_raw;  ///< what was fetched, in the cursor's buffer
};

using ASDataPtr = std::shared_ptr<ASData>;

/// A text. The capacity sizes fetch buffers (characters, terminator included); it never cuts a value. A capacity of 1
/// means that no length was declared.
class QOR_API ASText : public ASData {
public:
    std::size_t capacity() const noexcept { return m_capacity; }
    std::string_view text(ASTextBuffer& scratch) const final;
    void take(std::string_view stored) final;

protected:
    ASText(ASType type, std::size_t capacity) : ASData(type), m_capacity(capacity) {}
    ASText(ASType type, std::size_t capacity, std::string_view value);

private:
    std::size_t m_capacity;
    std::string m_value;
};

/// Text of variable length.
class QOR_API ASVStr final : public ASText {
public:
    explicit ASVStr(std::size_t capacity) : ASText(ASType::VarChar, capacity) {}
    ASVStr(std::size_t capacity, std::string_view value) : ASText(ASType::VarChar, capacity, value) {}
};

/// Text of fixed length.
class QOR_API ASStr final : public ASText {
public:
    explicit ASStr(std::size_t capacity) : ASText(ASType::Char, capacity) {}
    ASStr(std::size_t capacity, std::string_view value) : ASText(ASType::Char, capacity, value) {}
};

class QOR_API ASInt final : public ASData {
public:
    ASInt() : ASData(ASType::Int) {}
    explicit ASInt(std::int32_t value);
    std::int32_t value() const noexcept { return m_value; }
    std::string_view text(ASTextBuffer& scratch) const override;
    void take(std::string_view stored) override;

private:
    std::int32_t m_value = 0;
};

class QOR_API ASInt64 final : public ASData {
public:
    ASInt64() : ASData(ASType::BigInt) {}
    explicit ASInt64(std::int64_t value);
    std::int64_t value() const noexcept { return m_value; }
    std::string_view text(ASTextBuffer& scratch) const override;
    void take(std::string_view stored) override;

private:
    std::int64_t m_value = 0;
};

class QOR_API ASDouble final : public ASData {
public:
    ASDouble() : ASData(ASType::Double) {}
    explicit ASDouble(double value);
    /// \param spelled the number as it was written, which a column of decimal numbers is compared with
    ASDouble(double value, std::string spelled);
    double value() const noexcept { return m_value; }
    std::string_view text(ASTextBuffer& scratch) const override;
    void take(std::string_view stored) override;

private:
    friend ASValue valueOf(const ASData& data);
    double m_value = 0;
    std::string m_spelled;
};

class QOR_API ASGuid final : public ASData {
public:
    ASGuid() : ASData(ASType::Guid) {}
    explicit ASGuid(const Guid& value);
    const Guid& value() const noexcept;
    std::string_view text(ASTextBuffer& scratch) const override;
    void take(std::string_view stored) override;

private:
    mutable Guid m_value;
    mutable bool m_unread = false;  ///< what was taken has the usual form, whose number few ask for
};

class QOR_API ASRealBlob final : public ASData {
public:
    ASRealBlob() : ASData(ASType::Blob) {}
    explicit ASRealBlob(RealBlob value);
    std::string_view text(ASTextBuffer& scratch) const override;
    void take(std::string_view stored) override;

private:
    RealBlob m_value;
};

/// Seconds since the epoch, UTC.
class QOR_API ASTime final : public ASData {
public:
    ASTime() : ASData(ASType::DateTime) {}
    explicit ASTime(std::int64_t seconds);
    std::int64_t value() const noexcept { return m_value; }
    std::string_view text(ASTextBuffer& scratch) const override;
    void take(std::string_view stored) override;

private:
    std::int64_t m_value = 0;
};

}  // namespace QOR
