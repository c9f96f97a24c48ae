/// \file
/// Internal: how a condition is asked of some rows only.
#pragma once

#include "rdbmspp/sql/ASComparison.h"

namespace QOR {

struct ASDialect;

/// `condition` for the rows that `access` lets through. An engine is free to evaluate the terms of a conjunction in any
/// order, so `access AND condition` may ask the condition of rows outside, and what it fails on there, or how long it
/// takes, tells of them. Here every engine's rule that a CASE evaluates the branch it takes and no other stands between
/// them: `access AND plain AND CASE WHEN access THEN rest END`, with a CASE around the rest too (see
/// ASConditionWriter.cpp), where
///
/// - `access` stands in front as well, so that an index finds the rows;
/// - `rest` is what the condition holds beside its plain terms. It may hold nested selects: one that does not name this
///   select's columns runs when the first row inside reaches it, and so tells of no other row;
/// - the plain terms are comparisons (=, <>, <, <=, >, >=, between, in, is null, and any and/or/not of them) of stored
///   columns with literals and with each other. They stand outside the CASE because an index serves them only there,
///   and may do so because they cannot fail: a stored column is read without computing anything
///   (ASDomain::isStored()), and SQLite compares any two stored values by storage class, after an affinity that turns
///   what it cannot convert into nothing else. A typed engine compares columns of different types by casts, which may
///   fail on a row: there no two columns are compared outside, and a column only with literals that are sent as its own
///   kind, for which the engine's comparisons fail for no value (ASDomain::isStored() knows of no others there).
///   A conjunction says of `column = literal` that the column is that literal in all its other terms, and SQLite acts
///   on it: `access` inside the CASE would become `literal IN (...)`, true of every row. It does so with literals that
///   have no affinity only; so an equality outside with a GUID, which the object columns and all their other names are,
///   is written with one that has. Everything else stays inside: like (its time is the row's to choose, and a pattern
///   may be bad), functions, nested selects, and columns that a view computes.
ASComparison restricted(const ASDialect& dialect, const ASComparison& access, const ASComparison& condition);

}  // namespace QOR
