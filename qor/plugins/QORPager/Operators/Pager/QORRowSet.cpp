#include "QORPager/Operators/Pager/QORRowSet.h"

#include "QORMessage/QORMessageIterator.h"
#include "QORPager/Operators/QORIndex.h"

namespace QOR {

namespace {

void expectWritten(int result) {
    if (result != 0) throw QORResponseFull();
}

}  // namespace

QORResponseFull::QORResponseFull() : QORException(errFailure, "the answer does not fit into a message") {}

QORResponseFull::~QORResponseFull() = default;

QORRowSet::QORRowSet(const QORMessageIterator& response, const std::vector<const QORField*>& fields)
    : m_at(response.clone()), m_fields(fields) {
    expectWritten(m_at->addChild(tag::rowSet));
    writeRowSetHeader();
}

QORRowSet::~QORRowSet() = default;

/// An element a field, which holds the name; for a field of several values one level deeper.
void QORRowSet::writeRowSetHeader() {
    for (const QORField* field : m_fields) {
        expectWritten(m_at->addChild(tag::cell));
        if (field->isMulty()) expectWritten(m_at->addChild(tag::cell));
        expectWritten(m_at->putValue(field->name, tag::name));
        if (field->isMulty()) m_at->seekUp();
        m_at->seekUp();
    }
}

void QORRowSet::writeRow(const ArgCSP& row) {
    expectWritten(writeResultRow(row, m_fields, *m_at));
}

void QORRowSet::openRow() {
    expectWritten(m_at->addChild(tag::row));
}

void QORRowSet::writeValue(std::string_view value) {
    expectWritten(m_at->addChild(tag::cell));
    expectWritten(m_at->putValue(value, tag::value));
    m_at->seekUp();
}

void QORRowSet::closeRow() {
    m_at->seekUp();
}

void QORRowSet::writeText(QORTag what, std::string_view text) {
    expectWritten(m_at->putValue(text, what));
}

void QORRowSet::writeNumber(QORTag what, std::int64_t number) {
    expectWritten(m_at->putInt64(number, what));
}

void QORRowSet::writeFlag(QORTag what) {
    expectWritten(m_at->addChild(what));
    m_at->seekUp();
}

void QORRowSet::writeStatistics(std::int64_t written, std::int64_t total) {
    writeNumber(tag::statistics, written);
    writeNumber(tag::total, total);
}

}  // namespace QOR
