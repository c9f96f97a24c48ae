/// \file
/// Views whose rows lie in several places.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"
#include "rdbmspp/engine/AException.h"

namespace QOR {

/// How rows are divided among places, at one time. A place is a schema in which the views have its own rows; there is
/// one more with the rows of all. Each schema has a twin for who reads a great deal. Immutable.
class QOR_API ASPlaces {
public:
    virtual ~ASPlaces() = default;
    virtual std::size_t count() const noexcept = 0;
    /// \param longRead the twin
    virtual std::string schemaOf(std::size_t place, bool longRead) const = 0;
    virtual std::string schemaOfAll(bool longRead) const = 0;
    /// Whether the schema with the rows of all has the view.
    virtual bool hasAll(std::string_view view) const = 0;
    /// Whether each place has the view.
    virtual bool hasEach(std::string_view view) const = 0;
    /// Whether the column's value decides about the place.
    virtual bool isKey(std::string_view view, std::string_view column) const = 0;
    /// Where rows with this value of a key lie; without one, those that have null. Nothing where that is not known.
    virtual std::optional<std::size_t> placeOf(const std::optional<std::string>& key) const = 0;
};

/// Knows the division of the day. Thread-safe.
class QOR_API ASSpread {
public:
    virtual ~ASSpread() = default;
    /// Null while all rows lie in the database itself. \throws AException
    virtual std::shared_ptr<const ASPlaces> places() = 0;
    /// Whether this is how rows are divided now. Asked on a connection of its own, so that it is not an older state
    /// that answers. \throws AException
    virtual bool isCurrent(const ASPlaces& places) = 0;
    /// The failure of a statement that read rows there, with the name of who is to blame for it where that can be found
    /// out: the database that asks the places does not always tell. May take seconds where one does not answer.
    virtual AException naming(const ASPlaces& places, const AException& failure) = 0;
};

}  // namespace QOR
