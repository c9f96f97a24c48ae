/// \file
/// QORInfo: an info document, the free-form part of operations, events, backups and configurations.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

/// A tree of named parameters: each has a name, a text (usually empty when it has children) and children in order;
/// several children may bear one name. The document itself is the nameless parameter at the top.
///
/// A plain value: copies are deep, moves cheap, no thread rules beyond those of a std::string. Trees are built from
/// the leaves up, which lets every parameter know how deep it is; none is deeper than maxDepth.
class QOR_API QORInfo {
public:
    /// Levels of parameters below the document.
    static constexpr std::size_t maxDepth = 64;

    /// An empty document.
    QORInfo() = default;
    explicit QORInfo(std::string name, std::string value = {});

    const std::string& name() const noexcept { return m_name; }
    const std::string& value() const noexcept { return m_value; }
    const std::vector<QORInfo>& children() const noexcept { return m_children; }
    /// No text and no children.
    bool empty() const noexcept { return m_value.empty() && m_children.empty(); }
    /// Levels of parameters below this one, 0 for a leaf.
    std::size_t depth() const noexcept { return m_depth; }

    void setName(std::string name) { m_name = std::move(name); }
    void setValue(std::string value) { m_value = std::move(value); }
    /// Appends a child. \throws QORException 400 when that makes the tree deeper than maxDepth
    QORInfo& add(QORInfo child);
    QORInfo& add(std::string name, std::string value) { return add(QORInfo(std::move(name), std::move(value))); }

    /// The first child of that name; null when there is none. Valid until the tree changes.
    const QORInfo* getParameter(std::string_view name) const noexcept;
    /// The parameter at a path such as "source_env/eid", the first of its name at every step; null when there is none.
    const QORInfo* findByPath(std::string_view path) const noexcept;
    /// The text form of the parameter at a path; "" when there is none.
    std::string getParameterByPath(std::string_view path) const;

    /// For people: the text of a parameter without children, the XML form of anything else. An empty document is "".
    std::string toString() const;

    /// The XML form, from which deserializeFromString makes an equal tree whatever bytes names and texts hold:
    /// `<info><package><name>curl</name></package></info>`. A name that XML does not take becomes
    /// `<param name="1st name">`, or name64 with base64 where an attribute cannot carry it either; a text that XML
    /// cannot carry is base64 with the attribute encoding="base64".
    std::string serializeToString() const;
    /// Reads the XML form; the name of the root element is of no interest. White space beside elements is not text.
    /// \returns 0; non-zero, with the document unchanged, when the text is no such document or too deep
    int deserializeFromString(std::string_view xml);

    /// Where the document at the beginning of a text ends: behind its root element, and behind what XML allows to
    /// follow that (white space, comments, instructions) when nothing else does. Nothing when there is no whole root
    /// element. Reads tags only, in memory that does not depend on the text's size; that the document can be read is
    /// deserializeFromString() to say.
    static std::optional<std::size_t> documentLength(std::string_view text);

    friend bool operator==(const QORInfo& a, const QORInfo& b) noexcept {
        return a.m_name == b.m_name && a.m_value == b.m_value && a.m_children == b.m_children;
    }

private:
    std::string m_name;
    std::string m_value;
    std::vector<QORInfo> m_children;
    std::size_t m_depth = 0;
};

}  // namespace QOR
