/// \file
/// What a request turned out to ask for and to get, for those who keep account of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

class QORBinaryIterator;

/// Written by the thread that serves the request, where it learns it; read by whoever made them when it is over.
/// Whoever answers without the router notes it himself.
struct QORRequestNotes {
    enum class Conditions : std::uint8_t {
        Left,    ///< nobody wants to know
        Masked,  ///< with `?` in place of literals
        Whole,
    };
    Conditions conditions = Conditions::Left;

    std::string operatorName{};
    std::string view{};                 ///< empty: the request names none
    std::vector<std::string> fields{};  ///< columns, or fields; not all of very many
    std::string condition{};            ///< empty: there was none
    std::int64_t rows = 0;
    std::uint64_t stored = 0;   ///< records that were taken in
    std::uint64_t refused = 0;  ///< records that were not
    int error = 0;              ///< code of the error that the answer holds

    /// What an operator is about to be asked; of several the first is kept.
    void asked(std::string_view operatorNamed, const QORBinaryIterator& select);

    /// Those of the request that the calling thread serves; null: nobody wants any.
    static QORRequestNotes* current() noexcept;
};

/// Makes notes current on this thread, from its making to its end.
class QORRequestNotesScope {
public:
    explicit QORRequestNotesScope(QORRequestNotes* notes) noexcept;
    ~QORRequestNotesScope();
    QORRequestNotesScope(const QORRequestNotesScope&) = delete;
    QORRequestNotesScope& operator=(const QORRequestNotesScope&) = delete;

private:
    QORRequestNotes* const m_before;
};

/// A filter's text with `?` in place of its literals: texts in quotes of either kind, numbers, and whatever is no part
/// of the language. One that ends within a text is masked up to its end.
std::string withoutLiterals(std::string_view filter);

}  // namespace QOR
