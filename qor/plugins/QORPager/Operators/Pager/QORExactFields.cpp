#include "QORPager/Operators/Pager/QORExactFields.h"

#include "QORPager/Operators/Pager/QORBackup.h"
#include "QORPager/QORArg.h"
#include "QORPager/QORFieldGetters.h"
#include "QORPager/QORSources.h"

namespace QOR {

namespace {

std::string getBackupField(const QORArg& row, const QORField* field, bool&, int) {
    const auto* const backup = dynamic_cast<const QORBackupArg*>(&row);
    return backup == nullptr ? std::string() : getStoredValue(backup->backup, *field);
}

/// The environments of an operation: its own, then the others that it touches.
const QOREID* environmentAt(const QORProgressArg& row, int index) {
    const QOREID& own = row.record.eid;
    if (own.isValid() && index == 0) return &own;
    auto left = index - (own.isValid() ? 1 : 0);
    for (const QOREID& eid : row.record.eids) {
        if (eid != own && left-- == 0) return &eid;
    }
    return nullptr;
}

std::string getEnvironments(const QORArg& row, const QORField*, bool& last, int index) {
    last = true;
    if (const auto* const event = dynamic_cast<const QOREventArg*>(&row)) return fieldText(event->event.eid);
    const auto* const operation = dynamic_cast<const QORProgressArg*>(&row);
    const QOREID* const eid = operation == nullptr ? nullptr : environmentAt(*operation, index);
    if (eid == nullptr) return {};
    last = environmentAt(*operation, index + 1) == nullptr;
    return fieldText(*eid);
}

bool isEnvironmentOfRecord(const QORField& field) {
    const bool isLog = field.cursorType == TCursorType::OpLog || field.cursorType == TCursorType::EventLog;
    return isLog && field.name == sourceOf(field.cursorType).constant(QORConstantUse::Environment).name;
}

}  // namespace

const QORField& QORExactFields::with(const QORField& field, QORFieldGetter getter, FieldStructType structType) {
    QORField& made = m_made.emplace_back(field);
    made.getter = getter;
    made.structType = structType;
    return made;
}

const QORField& QORExactFields::shown(const QORField& field) {
    if (field.cursorType == TCursorType::Info) return with(field, getBackupField, FieldStructType::Single);
    return isEnvironmentOfRecord(field) ? with(field, getEnvironments, FieldStructType::Single) : field;
}

const QORField& QORExactFields::filtered(const QORField& field) {
    return isEnvironmentOfRecord(field) ? with(field, getEnvironments, FieldStructType::Multi) : shown(field);
}

}  // namespace QOR
