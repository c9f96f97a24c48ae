/// \file
/// Fields as exact requests read them.
#pragma once

#include <deque>
#include <string>

#include "QORPager/QORField.h"

namespace QOR {

/// What a request filters by is what it is shown, and what the source finds records by: so some fields have more to say
/// to an exact request than to another one. Backups have the values that they are found by, and the environment of a
/// log's record is what the log keeps it under: the one that it belongs to first, then those that it touches.
///
/// Used by one request; the fields that it gives live as long as it does, or as the field set that they are of.
class QORExactFields {
public:
    /// For columns and sort keys: a field that has one value by its descriptor is shown with one.
    const QORField& shown(const QORField& field);
    /// For the filter, which looks at all values of a record.
    const QORField& filtered(const QORField& field);

private:
    const QORField& with(const QORField& field, QORFieldGetter getter, FieldStructType structType);

    std::deque<QORField> m_made;
};

}  // namespace QOR
