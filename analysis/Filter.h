// The display filter: a small expression language over the fields of an event
// (EventFields.h), in the manner of a protocol analyser's display filters.
//
//   expr       := and { ("||" | "or") and }
//   and        := unary { ("&&" | "and") unary }
//   unary      := ("!" | "not") unary | "(" expr ")" | test
//   test       := FIELD [ OP value ]
//   OP         := "==" | "!=" | "<" | "<=" | ">" | ">=" | "contains"
//   value      := NUMBER | "quoted string" | word
//
// "!" binds tighter than "&&", which binds tighter than "||"; a comparison is
// one operand, so "!type == 3" is "!(type == 3)". Numbers are decimal
// (-5, 12, 2.5) or hexadecimal (0x1F). A field alone tests that the event has
// it (a reading mark, a decoded field, a direction, bytes). "a != b" is
// "!(a == b)", so it holds for an event without the field; "<", ">" and
// "contains" never hold for a missing field. The empty filter (blanks only)
// matches every event. README.md lists the fields and their values.
#pragma once

#include "analysis/EventFields.h"

#include <memory>
#include <string>

namespace analysis {

struct FilterError {
    size_t position = 0;   // 0-based character offset in the filter text
    std::string expected;  // "a value", "')'", "a field name", ...
    std::string message;   // "column 7: expected a value after '=='"
};

struct FilterNode;

class Filter {
public:
    Filter();
    ~Filter();
    Filter(const Filter&);
    Filter& operator=(const Filter&);

    // Compiles `text`. On success the filter becomes it and true is returned;
    // on a bad expression `error` tells where and what was expected, and the
    // filter stays as it was (the last good one).
    bool Compile(const std::string& text, FilterError& error);
    // A compiled filter from text, or an error: for callers that have no last
    // good filter to keep.
    static bool Parse(const std::string& text, Filter& out, FilterError& error);

    bool Matches(const EventFields& event) const;
    // True for the empty filter, which matches everything.
    bool IsEmpty() const { return !m_root; }
    // The text of the filter compiled last.
    const std::string& Text() const { return m_text; }

private:
    std::shared_ptr<const FilterNode> m_root;
    std::string m_text;
};

// The field names the filter knows, in the order the help lists them.
const std::vector<std::string>& FilterFieldNames();

}  // namespace analysis
