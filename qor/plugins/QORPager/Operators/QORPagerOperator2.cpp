#include "QORPager/Operators/QORPagerOperator2.h"

#include "QORCommon/QORException.h"
#include "QORFunctionality/QOROpFactory.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORPager/Operators/Pager2/QORPreparedSelect.h"
#include "rdbmspp/engine/AException.h"

namespace QOR {

namespace {

/// Made while the module is loaded, before the table of errors and the factory of "pager".
const QORPtr<QOROpFactory> factoryQORPagerOperatorPrototype2 =
    newOperatorFactory<QORPagerOperatorPrototype2, 10, 20, 4, true>("pager2", 272, 10);

/// The views are learned before the name is looked up, so that no answer but a failure of the database leaves them
/// unknown, whatever views there are: none has an empty name.
QOROpPriming::Result judgePriming(const std::string& error) {
    if (SelectStmnt::areViewsKnown()) return QOROpPriming::Result::Learned;
    return error == "invalid view \"\"" ? QOROpPriming::Result::NothingThere : QOROpPriming::Result::Failed;
}

/// Builds and runs the statement; every failure leaves as an exception.
void answer(QORMessageIterator* in, QORMessageIterator* out) {
    if (in == nullptr || out == nullptr) {
        throwException(errFailure, "[select]: in/out function parameter is null.", pager2SourcePath, __LINE__);
    }
    const auto* request = dynamic_cast<QORBinaryIterator*>(in);
    const auto* response = dynamic_cast<QORBinaryIterator*>(out);
    if (request == nullptr || response == nullptr) {
        throwException(errFailure, "[select]: incorrect iterator type", pager2SourcePath, __LINE__);
    }
    PreparedSelect statement(*request);
    QORBinaryIterator position = *response;
    if (request->seekPresence(tag::explain) == 0) return statement->explain(position);
    statement->execute(position);
    statement.keep();
}

/// Takes back what was written of the result, so that the response holds the error alone.
void reportFailure(QORMessageIterator* out, int code, const std::string& message) {
    if (out == nullptr) return;
    out->removeChildren(tag::rowSet);
    QOROperatorFunctionalPrototype::addError(out, QORErrors, code, message.c_str());
}

}  // namespace

constexpr QOROpPriming QORPagerOperatorPrototype2::priming{"select", R"([1740,[[1009,""]]])", judgePriming};

QORPagerOperatorPrototype2::QORPagerOperatorPrototype2() {
    static const MethodDescriptor table[] = {
        method("select", &QORPagerOperatorPrototype2::select, 100, 0),
        {"", nullptr, 0, 0},
    };
    registerMethods(table);
}

QORPagerOperatorPrototype2::~QORPagerOperatorPrototype2() = default;

void QORPagerOperatorPrototype2::select(QORMessageIterator* in, QORMessageIterator* out) {
    try {
        answer(in, out);
    } catch (const QORException& exception) {
        reportFailure(out, exception.code(), exception.message());
    } catch (const AException& exception) {
        reportFailure(out, errFailure, exception.text());
    } catch (const std::exception& exception) {
        reportFailure(out, errFailure, exception.what());
    }
}

}  // namespace QOR
