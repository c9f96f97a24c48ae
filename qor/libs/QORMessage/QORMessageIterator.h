/// \file
/// The host's cursors over request and response messages.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"
#include "QORMessage/QORTags.h"

namespace QOR {

/// A cursor that stands on one element of a message, reads its children and writes new ones.
///
/// Every operation returns 0 on success and a non-zero number on failure, and leaves the cursor and the outputs
/// unchanged when it fails. "Text" is any byte string: an element either has a text, or a binary value, or children,
/// or none of these. Ownership: a cursor does not own its message and must not outlive it. Several cursors may stand
/// in one message; writing through one never moves another, removing an element invalidates those that stand in it.
/// One thread uses a message and its cursors at a time.
class QOR_API QORMessageIterator {
public:
    virtual ~QORMessageIterator();

    // ---- position -----------------------------------------------------------------------------------------------
    /// The tag of the current element; 0 on the root, which stands above all elements.
    virtual QORTag curID() const = 0;
    /// The name of the current element; empty on the root and for a tag without a name. Valid as long as the message.
    virtual std::string_view curName() const;
    /// 0 when a child with that tag exists (any child when id is 0).
    virtual int seekPresence(QORTag id) const = 0;
    /// Moves to the first child with that tag (any when id is 0).
    virtual int firstChild(QORTag id = 0) = 0;
    /// The same move, under the name that look-ups use.
    virtual int seek(QORTag id) = 0;
    /// Moves to the next sibling with that tag (any when id is 0).
    virtual int nextSibling(QORTag id = 0) = 0;
    /// Back to the parent; fails on the root.
    virtual int seekUp() = 0;
    /// To the root: the top element of the message.
    virtual int reset() = 0;
    /// Moves down a slash-separated path of element names or tag numbers, starting at the current element.
    virtual int seekPath(std::string_view path) = 0;
    /// A new cursor that stands on the same element; the caller owns it.
    virtual std::unique_ptr<QORMessageIterator> clone() const = 0;

    // ---- reading: with id 0 the value of the current element, else of its first child with that tag --------------
    /// An integer: the text must be wholly a decimal number of 32 (64) bits.
    virtual int getValue(int& out, QORTag id = 0) const = 0;
    virtual int getValue(std::int64_t& out, QORTag id = 0) const = 0;
    /// The bytes of a text or binary value. An element without a value, or with children, cannot be read.
    virtual int getValue(std::string& out, QORTag id = 0) const = 0;
    /// The same without a copy; the view lives as long as the element.
    virtual int getView(std::string_view& out, QORTag id = 0) const = 0;

    // ---- writing --------------------------------------------------------------------------------------------------
    /// Appends a child and moves to it. Fails when a limit of the message (depth, elements, bytes) is reached.
    virtual int addChild(QORTag id) = 0;
    /// The same for a name that comes from data. One that the dictionary does not know gets a number of this message
    /// alone; cursors that cannot do that refuse it. Fails for the empty name.
    virtual int addNamed(std::string_view name);
    /// With id 0 sets the text of the current element; else appends a child with that text and stays.
    virtual int putValue(std::string_view text, QORTag id = 0) = 0;
    virtual int putInt(std::int32_t value, QORTag id = 0) = 0;
    virtual int putInt64(std::int64_t value, QORTag id = 0) = 0;
    /// The same for bytes that are not meant as text.
    virtual int putBinary(const void* data, std::size_t size, QORTag id = 0) = 0;
    /// Removes all children with that tag, with everything below them; fails when there is none.
    virtual int removeChildren(QORTag id) = 0;

protected:
    QORMessageIterator() = default;
    QORMessageIterator(const QORMessageIterator&) = default;
    QORMessageIterator& operator=(const QORMessageIterator&) = default;
};

}  // namespace QOR
