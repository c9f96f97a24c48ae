#include "rdbmspp/pool/ASNumbers.h"

#include <optional>

#include "rdbmspp/pool/ASSessionImpl.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

std::vector<std::int64_t> readNumbers(ASSession& session, std::string_view sql, unsigned columns) {
    ASSession::Impl& impl = session.impl();
    const std::optional<std::uint32_t> state = impl.connection.state();
    const ASKnownNumbers::Numbers* const known = state ? impl.numbers.find(*state, sql) : nullptr;
    if (known != nullptr) return *known;
    ASStatement& select = session.prepare(sql);
    select.execute();
    std::vector<std::int64_t> numbers;
    if (select.fetch()) {
        for (unsigned column = 1; column <= columns; ++column)
            numbers.push_back(select.integer(column));
    }
    select.close();
    if (state && impl.connection.state() == state) impl.numbers.keep(*state, sql, numbers);
    return numbers;
}

}  // namespace QOR
