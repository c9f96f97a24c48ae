/// \file
/// The descriptor of a field: a named, typed thing that a request can select, filter by or sort by, and that knows
/// how to pull its text out of a row.
#pragma once

#include <string>

#include "QORFunctionality/QORAccess.h"
#include "QORPager/QORFieldTypes.h"

namespace QOR {

class QORArg;
class QORField;

/// Reads one value of a field from a row. \param last set by getters of lists: whether `index` is the last value.
/// \returns the text; a missing value is the empty text, never an error
using QORFieldGetter = std::string (*)(const QORArg& row, const QORField* field, bool& last, int index);

/// Whether the first row's value of the field orders before the second's.
using QORFieldLess = bool (*)(const QORArg& first, const QORArg& second, const QORField& field);

/// One field. A value: copies share the access provider and own everything else. Unchanging after construction except
/// for base64, so it may be read from any thread.
class QORField {
public:
    /// \param fieldAccessProvider of the field set, for getters that need the host to resolve something; may be null
    QORField(std::string fieldName, TCursorType fieldCursorType, TValueType fieldValueType, QORFieldGetter fieldGetter,
             QORPtr<QORAccessProviderPrototype> fieldAccessProvider, FieldStructType fieldStructType,
             std::string fieldPath, std::string fieldValueName, std::string fieldCacheName);
    QORField(const QORField&);
    QORField(QORField&&) noexcept;
    QORField& operator=(const QORField&);
    QORField& operator=(QORField&&) noexcept;
    ~QORField();

    /// The first, or only, value of the row.
    std::string getValue(const QORArg& row) const;
    /// One value of the row. \param last set when there is no value after `index` (multi-valued fields)
    std::string getValue(const QORArg& row, bool& last, int index) const;
    bool isMulty() const noexcept { return structType == FieldStructType::Multi; }

    /// By name, byte-wise: the name is the field's identity.
    bool operator<(const QORField& other) const noexcept { return name < other.name; }

    std::string name;
    TCursorType cursorType;
    TValueType valueType;
    QORFieldGetter getter;
    QORFieldLess lessValueFunc;  ///< follows from valueType; null for dates, which have no order
    FieldStructType structType;
    std::string path;       ///< slash-separated path of the value in the row's message or info document
    std::string valueName;  ///< the value at `path`; "" is the node's own value, "/" the whole node as text
    std::string cacheName;  ///< of Info fields, the cache whose document holds the value
    bool base64;            ///< the value is read through the message's base64 reader
    QORPtr<QORAccessProviderPrototype> accessProvider;
};

/// The order functions: each reads the first values of both rows. A missing value is the empty text.
bool boolean_less(const QORArg& first, const QORArg& second, const QORField& field);
bool int_less(const QORArg& first, const QORArg& second, const QORField& field);
bool string_less(const QORArg& first, const QORArg& second, const QORField& field);
bool ip_less(const QORArg& first, const QORArg& second, const QORField& field);
bool time_less(const QORArg& first, const QORArg& second, const QORField& field);

}  // namespace QOR
