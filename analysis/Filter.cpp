#include "analysis/Filter.h"

#include "packets/Packets.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace analysis {

namespace {

enum class Field { Number, Time, Dir, Phase, Type, Status, Text, Bytes, Reading, Pattern, Decoded };

enum class Op { Eq, Ne, Lt, Le, Gt, Ge, Contains };

struct FieldInfo {
    const char* name;
    Field field;
};

const FieldInfo kFields[] = {
    {"number", Field::Number}, {"time", Field::Time},       {"dir", Field::Dir},
    {"phase", Field::Phase},   {"type", Field::Type},       {"status", Field::Status},
    {"text", Field::Text},     {"bytes", Field::Bytes},     {"reading", Field::Reading},
    {"pattern", Field::Pattern},
};

std::string Lower(const std::string& s)
{
    std::string out(s);
    for (char& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// A name as type names are compared: letters and digits only, lower case.
std::string NormalName(const std::string& s)
{
    std::string out;
    out.reserve(s.size());
    for (char c : s) {
        if (std::isalnum(static_cast<unsigned char>(c)))
            out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
    return out;
}

}  // namespace

struct FilterNode {
    enum Kind { Or, And, Not, Compare, Present } kind = Present;
    std::shared_ptr<const FilterNode> a, b;
    Field field = Field::Number;
    std::string decoded;  // the decoded field's name
    bool decodedText = false;
    Op op = Op::Eq;
    // The value compared with.
    bool numeric = false;
    double number = 0.0;
    std::string text;  // a text, or a normalised name
    std::vector<uint8_t> bytes;
};

namespace {

struct Token {
    enum Kind { End, Word, Number, String, Compare, LParen, RParen, And, Or, Not } kind = End;
    size_t pos = 0;
    std::string text;   // as written
    std::string value;  // a string's contents
    Op op = Op::Eq;
};

struct ParseFailure {
    size_t pos = 0;
    std::string expected;
    std::string message;
};

ParseFailure Fail(size_t pos, const std::string& expected, const std::string& detail = std::string())
{
    return ParseFailure{pos, expected, "column " + std::to_string(pos + 1) + ": expected " + expected + detail};
}

bool IsWordStart(char c)
{
    return std::isalpha(static_cast<unsigned char>(c)) || c == '_';
}

bool IsWordChar(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.';
}

// Parses a number as written: decimal integer or real, or 0x hexadecimal.
bool NumberValue(const std::string& s, double& out)
{
    if (s.empty())
        return false;
    const char* p = s.c_str();
    char* end = nullptr;
    errno = 0;
    const bool neg = s[0] == '-';
    const std::string body = neg ? s.substr(1) : s;
    if (body.size() > 2 && body[0] == '0' && (body[1] == 'x' || body[1] == 'X')) {
        for (size_t i = 2; i < body.size(); ++i) {
            if (!std::isxdigit(static_cast<unsigned char>(body[i])))
                return false;
        }
        const unsigned long long v = std::strtoull(body.c_str() + 2, &end, 16);
        out = neg ? -static_cast<double>(v) : static_cast<double>(v);
        return true;
    }
    for (char c : body) {
        if (!std::isdigit(static_cast<unsigned char>(c)) && c != '.')
            return false;
    }
    if (body.empty() || std::count(body.begin(), body.end(), '.') > 1 || body[0] == '.' || body.back() == '.')
        return false;
    out = std::strtod(p, &end);
    return end && *end == 0;
}

// Cuts the text into tokens; false with the failure at the first bad one.
bool Lex(const std::string& s, std::vector<Token>& out, ParseFailure& failure)
{
    size_t i = 0;
    while (true) {
        while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i])))
            ++i;
        Token t;
        t.pos = i;
        if (i >= s.size()) {
            t.kind = Token::End;
            out.push_back(t);
            return true;
        }
        const char c = s[i];
        auto two = [&](const char* op) { return s.compare(i, 2, op) == 0; };
        if (c == '(' || c == ')') {
            t.kind = c == '(' ? Token::LParen : Token::RParen;
            t.text = std::string(1, c);
            ++i;
        } else if (two("&&") || two("||")) {
            t.kind = c == '&' ? Token::And : Token::Or;
            t.text = s.substr(i, 2);
            i += 2;
        } else if (c == '&') {
            {
                failure = Fail(i, "'&&'");
                return false;
            }
        } else if (c == '|') {
            {
                failure = Fail(i, "'||'");
                return false;
            }
        } else if (two("==") || two("!=") || two("<=") || two(">=")) {
            t.kind = Token::Compare;
            t.text = s.substr(i, 2);
            t.op = c == '=' ? Op::Eq : c == '!' ? Op::Ne : c == '<' ? Op::Le : Op::Ge;
            i += 2;
        } else if (c == '<' || c == '>') {
            t.kind = Token::Compare;
            t.text = std::string(1, c);
            t.op = c == '<' ? Op::Lt : Op::Gt;
            ++i;
        } else if (c == '=') {
            {
                failure = Fail(i, "'=='", ", not '='");
                return false;
            }
        } else if (c == '!') {
            t.kind = Token::Not;
            t.text = "!";
            ++i;
        } else if (c == '"') {
            size_t j = i + 1;
            std::string v;
            while (j < s.size() && s[j] != '"') {
                if (s[j] == '\\' && j + 1 < s.size())
                    ++j;
                v.push_back(s[j]);
                ++j;
            }
            if (j >= s.size())
                {
                failure = Fail(s.size(), "a closing '\"'", " for the string at column " + std::to_string(i + 1));
                return false;
            }
            t.kind = Token::String;
            t.text = s.substr(i, j + 1 - i);
            t.value = v;
            i = j + 1;
        } else if (std::isdigit(static_cast<unsigned char>(c)) ||
                   (c == '-' && i + 1 < s.size() && std::isdigit(static_cast<unsigned char>(s[i + 1])))) {
            size_t j = i + 1;
            while (j < s.size() && IsWordChar(s[j]))
                ++j;
            t.kind = Token::Number;
            t.text = s.substr(i, j - i);
            double v;
            if (!NumberValue(t.text, v))
                {
                failure = Fail(i, "a number", ", not '" + t.text + "'");
                return false;
            }
            i = j;
        } else if (IsWordStart(c)) {
            size_t j = i + 1;
            while (j < s.size() && IsWordChar(s[j]))
                ++j;
            t.text = s.substr(i, j - i);
            const std::string w = Lower(t.text);
            if (w == "and")
                t.kind = Token::And;
            else if (w == "or")
                t.kind = Token::Or;
            else if (w == "not")
                t.kind = Token::Not;
            else if (w == "contains") {
                t.kind = Token::Compare;
                t.op = Op::Contains;
            } else
                t.kind = Token::Word;
            i = j;
        } else {
            {
                failure = Fail(i, "a field name, a value or an operator", ", not '" + std::string(1, c) + "'");
                return false;
            }
        }
        out.push_back(t);
    }
}

const char* OpText(Op op)
{
    switch (op) {
    case Op::Eq: return "==";
    case Op::Ne: return "!=";
    case Op::Lt: return "<";
    case Op::Le: return "<=";
    case Op::Gt: return ">";
    case Op::Ge: return ">=";
    case Op::Contains: return "contains";
    }
    return "";
}

class Parser {
public:
    explicit Parser(std::vector<Token> tokens) : m_tokens(std::move(tokens)) {}

    // The tree, or null: for the empty filter, or when Failure() says why.
    std::shared_ptr<const FilterNode> Parse()
    {
        if (Peek().kind == Token::End)
            return nullptr;
        auto root = Expr();
        if (root && Peek().kind != Token::End)
            return Refuse(Fail(Peek().pos, "'&&', '||' or the end of the filter", After()));
        return root;
    }
    bool Failed() const { return m_failed; }
    const ParseFailure& Failure() const { return m_failure; }

private:
    const Token& Peek() const { return m_tokens[m_at]; }
    const Token& Take() { return m_tokens[m_at++]; }
    // " after 'x'" for the token before the current one.
    std::string After() const { return m_at > 0 ? " after '" + m_tokens[m_at - 1].text + "'" : std::string(); }
    // Keeps the first failure; null for the caller to hand up.
    std::nullptr_t Refuse(const ParseFailure& f)
    {
        if (!m_failed) {
            m_failed = true;
            m_failure = f;
        }
        return nullptr;
    }
    bool Rejected(const ParseFailure& f)
    {
        Refuse(f);
        return false;
    }

    // Operands of one binary operator, left to right: next() reads each
    // operand (the level that binds tighter).
    template <class Next>
    std::shared_ptr<const FilterNode> Chain(Token::Kind op, FilterNode::Kind kind, Next next)
    {
        auto left = next();
        while (left && Peek().kind == op) {
            Take();
            auto n = std::make_shared<FilterNode>();
            n->kind = kind;
            n->a = left;
            n->b = next();
            if (!n->b)
                return nullptr;
            left = n;
        }
        return left;
    }

    std::shared_ptr<const FilterNode> Expr() { return Chain(Token::Or, FilterNode::Or, [this] { return AndExpr(); }); }

    std::shared_ptr<const FilterNode> AndExpr()
    {
        return Chain(Token::And, FilterNode::And, [this] { return Unary(); });
    }

    std::shared_ptr<const FilterNode> Unary()
    {
        const Token& t = Peek();
        if (t.kind == Token::Not) {
            Take();
            auto n = std::make_shared<FilterNode>();
            n->kind = FilterNode::Not;
            n->a = Unary();
            if (!n->a)
                return nullptr;
            return n;
        }
        if (t.kind == Token::LParen) {
            Take();
            auto inner = Expr();
            if (!inner)
                return nullptr;
            if (Peek().kind != Token::RParen)
                return Refuse(Fail(Peek().pos, "')'", After()));
            Take();
            return inner;
        }
        return Test();
    }

    std::shared_ptr<const FilterNode> Test()
    {
        const Token& t = Take();
        if (t.kind != Token::Word) {
            const std::string what = t.kind == Token::End ? std::string() : ", not '" + t.text + "'";
            m_at -= 1;
            return Refuse(Fail(t.pos, "a field name", m_at > 0 ? After() : what));
        }
        auto n = std::make_shared<FilterNode>();
        const std::string name = Lower(t.text);
        bool known = false;
        for (const FieldInfo& f : kFields) {
            if (name == f.name) {
                n->field = f.field;
                known = true;
            }
        }
        for (const std::string& d : DecodedFieldNames()) {
            if (name == d) {
                n->field = Field::Decoded;
                n->decoded = d;
                n->decodedText = d == "id.version";
                known = true;
            }
        }
        if (!known)
            return Refuse(Fail(t.pos, "a field name", ", not '" + t.text + "'"));
        const Token& next = Peek();
        if (next.kind == Token::Word || next.kind == Token::Number || next.kind == Token::String)
            return Refuse(Fail(next.pos, "an operator (==, !=, <, <=, >, >=, contains)", " after '" + t.text + "'"));
        if (next.kind != Token::Compare) {
            n->kind = FilterNode::Present;
            return n;
        }
        const Token& opToken = Take();
        n->kind = FilterNode::Compare;
        n->op = opToken.op;
        const Token& v = Peek();
        if (v.kind != Token::Word && v.kind != Token::Number && v.kind != Token::String)
            return Refuse(Fail(v.pos, "a value", " after '" + opToken.text + "'"));
        Take();
        if (!Bind(*n, t, opToken, v))
            return nullptr;
        return n;
    }

    // Checks the operator and the value against the field and keeps the value
    // in the form the field compares.
    bool Bind(FilterNode& n, const Token& field, const Token& opToken, const Token& v)
    {
        const std::string raw = v.kind == Token::String ? v.value : v.text;
        const std::string word = Lower(raw);
        double num = 0.0;
        const bool isNum = v.kind == Token::Number ? NumberValue(v.text, num) : NumberValue(raw, num);
        const Op op = n.op;
        const bool equality = op == Op::Eq || op == Op::Ne;
        auto needOps = [&](const char* ops) {
            return Rejected(Fail(opToken.pos, ops, " after '" + field.text + "', not '" + opToken.text + "'"));
        };
        auto needNumber = [&]() {
            n.numeric = true;
            if (op == Op::Contains)
                return needOps("'==', '!=', '<', '<=', '>' or '>='");
            if (!isNum)
                return Rejected(Fail(v.pos, "a number", " after '" + std::string(OpText(op)) + "', not '" + raw + "'"));
            n.number = num;
            return true;
        };
        switch (n.field) {
        case Field::Number:
        case Field::Time:
            return needNumber();
        case Field::Decoded:
            if (n.decodedText) {
                n.text = raw;
                return true;
            }
            return needNumber();
        case Field::Dir:
            if (!equality)
                return needOps("'==' or '!='");
            if (word == "rx" || word == "tx" || word == "none") {
                n.number = word == "rx" ? kDirRx : word == "tx" ? kDirTx : kDirNone;
                return true;
            }
            return Rejected(Fail(v.pos, "rx, tx or none", ", not '" + raw + "'"));
        case Field::Phase:
            if (op == Op::Contains)
                return needOps("'==', '!=', '<', '<=', '>' or '>='");
            for (int p = 1; p <= 5; ++p) {
                if (word == PhaseWord(p)) {
                    n.number = p;
                    return true;
                }
            }
            if (word == "none") {
                n.number = 0;
                return true;
            }
            if (isNum && num >= 0 && num <= 5 && num == std::floor(num)) {
                n.number = num;
                return true;
            }
            return Rejected(Fail(v.pos, "ping, config, negotiation, calibration, power or none", ", not '" + raw + "'"));
        case Field::Type:
            if (v.kind == Token::Number) {
                return needNumber();
            }
            if (!equality && op != Op::Contains)
                return needOps("'==', '!=' or 'contains' before a type name");
            n.text = NormalName(raw);
            if (n.text.empty())
                return Rejected(Fail(v.pos, "a type name or number"));
            return true;
        case Field::Status:
            if (!equality)
                return needOps("'==' or '!='");
            if (word == "ok" || word == "error") {
                n.number = word == "error" ? 1 : 0;
                return true;
            }
            return Rejected(Fail(v.pos, "ok or error", ", not '" + raw + "'"));
        case Field::Reading:
            if (!equality)
                return needOps("'==' or '!='");
            if (word == "recovered" || word == "corrected") {
                n.text = word;
                return true;
            }
            return Rejected(Fail(v.pos, "recovered or corrected", ", not '" + raw + "'"));
        case Field::Pattern:
            if (v.kind == Token::Number) {
                return needNumber();
            }
            if (!equality)
                return needOps("'==' or '!=' before a pattern name");
            for (int b = 0; b < 256; ++b) {
                std::string name = Lower(PatternName(static_cast<uint8_t>(b)));
                if (!name.empty() && name.back() != ' ' && name == word) {
                    n.numeric = true;
                    n.number = b;
                    return true;
                }
            }
            return Rejected(Fail(v.pos, "ack, nak, nd, mpp, atn, app or a byte", ", not '" + raw + "'"));
        case Field::Text:
            if (!equality && op != Op::Contains)
                return needOps("'==', '!=' or 'contains'");
            n.text = raw;
            return true;
        case Field::Bytes: {
            if (!equality && op != Op::Contains)
                return needOps("'==', '!=' or 'contains'");
            std::string digits;
            bool ok = true;
            if (v.kind == Token::Number) {
                const std::string& s = v.text;
                ok = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
                if (ok)
                    digits = s.substr(2);
            } else {
                for (char c : raw) {
                    if (std::isxdigit(static_cast<unsigned char>(c)))
                        digits.push_back(c);
                    else if (c != ' ' && c != ':' && c != '-')
                        ok = false;
                }
                // Spaced or colon-separated pairs: each group is one byte.
                if (ok && raw.find_first_of(" :-") != std::string::npos) {
                    n.bytes = ParseSpacedHex(raw);
                    size_t groups = 0;
                    bool inGroup = false;
                    size_t len = 0;
                    for (char c : raw) {
                        if (std::isxdigit(static_cast<unsigned char>(c))) {
                            if (!inGroup)
                                ++groups, len = 0;
                            inGroup = true;
                            ++len;
                            if (len > 2)
                                ok = false;
                        } else
                            inGroup = false;
                    }
                    if (ok && groups == n.bytes.size() && !n.bytes.empty())
                        return true;
                    ok = false;
                }
            }
            if (ok && !digits.empty()) {
                if (digits.size() % 2)
                    digits.insert(digits.begin(), '0');
                n.bytes = ParseSpacedHex(digits);
                return true;
            }
            return Rejected(Fail(v.pos, "hexadecimal bytes (\"03 FF\", \"03:ff\", \"03ff\" or 0x03ff)", ", not '" + raw + "'"));
        }
        }
        return false;
    }

    std::vector<Token> m_tokens;
    size_t m_at = 0;
    bool m_failed = false;
    ParseFailure m_failure;
};

bool CompareNumbers(double a, Op op, double b)
{
    switch (op) {
    case Op::Eq: return a == b;
    case Op::Ne: return a != b;
    case Op::Lt: return a < b;
    case Op::Le: return a <= b;
    case Op::Gt: return a > b;
    case Op::Ge: return a >= b;
    case Op::Contains: return false;
    }
    return false;
}

bool CompareText(const std::string& a, Op op, const std::string& b)
{
    switch (op) {
    case Op::Eq: return a == b;
    case Op::Ne: return a != b;
    case Op::Lt: return a < b;
    case Op::Le: return a <= b;
    case Op::Gt: return a > b;
    case Op::Ge: return a >= b;
    case Op::Contains: return a.find(b) != std::string::npos;
    }
    return false;
}

// a == b for a name against a normalised name, without a copy.
bool SameName(const std::string& raw, const std::string& normal)
{
    size_t j = 0;
    for (char c : raw) {
        if (!std::isalnum(static_cast<unsigned char>(c)))
            continue;
        if (j >= normal.size() || std::tolower(static_cast<unsigned char>(c)) != normal[j])
            return false;
        ++j;
    }
    return j == normal.size();
}

bool Present(const FilterNode& n, const EventFields& e)
{
    switch (n.field) {
    case Field::Dir: return e.dir != kDirNone;
    case Field::Phase: return e.phase != 0;
    case Field::Bytes: return !e.bytes.empty();
    case Field::Reading: return !e.reading.empty();
    case Field::Pattern: return e.isPattern;
    case Field::Decoded: return e.Find(n.decoded) != nullptr;
    default: return true;
    }
}

// The comparison for ==, <, <=, >, >=, contains (!= is the negation of ==).
bool Holds(const FilterNode& n, Op op, const EventFields& e)
{
    switch (n.field) {
    case Field::Number: return CompareNumbers(static_cast<double>(e.number), op, n.number);
    case Field::Time: return CompareNumbers(e.timeMs, op, n.number);
    case Field::Dir: return e.dir == static_cast<int>(n.number);
    case Field::Phase: return CompareNumbers(e.phase, op, n.number);
    case Field::Status: return (e.error ? 1 : 0) == static_cast<int>(n.number);
    case Field::Reading: return e.reading == n.text;
    case Field::Text: return CompareText(e.text, op, n.text);
    case Field::Type:
        if (n.numeric)
            return CompareNumbers(e.type, op, n.number);
        if (op == Op::Contains)
            return NormalName(e.typeName).find(n.text) != std::string::npos ||
                   NormalName(e.typeString).find(n.text) != std::string::npos;
        return (!e.typeName.empty() && SameName(e.typeName, n.text)) ||
               (!e.typeString.empty() && SameName(e.typeString, n.text));
    case Field::Pattern: return e.isPattern && CompareNumbers(e.bytes[0], op, n.number);
    case Field::Bytes:
        if (op == Op::Contains)
            return !n.bytes.empty() &&
                   std::search(e.bytes.begin(), e.bytes.end(), n.bytes.begin(), n.bytes.end()) != e.bytes.end();
        return e.bytes == n.bytes;
    case Field::Decoded: {
        const DecodedValue* v = e.Find(n.decoded);
        if (!v)
            return false;
        if (v->isText)
            return CompareText(v->text, op, n.text);
        return CompareNumbers(static_cast<double>(v->number), op, n.number);
    }
    }
    return false;
}

bool Eval(const FilterNode& n, const EventFields& e)
{
    switch (n.kind) {
    case FilterNode::Or: return Eval(*n.a, e) || Eval(*n.b, e);
    case FilterNode::And: return Eval(*n.a, e) && Eval(*n.b, e);
    case FilterNode::Not: return !Eval(*n.a, e);
    case FilterNode::Present: return Present(n, e);
    case FilterNode::Compare:
        // A missing decoded field or pattern fails every comparison but !=.
        if (n.op == Op::Ne)
            return !Holds(n, Op::Eq, e);
        return Holds(n, n.op, e);
    }
    return false;
}

}  // namespace

Filter::Filter() = default;
Filter::~Filter() = default;
Filter::Filter(const Filter&) = default;
Filter& Filter::operator=(const Filter&) = default;

bool Filter::Compile(const std::string& text, FilterError& error)
{
    std::vector<Token> tokens;
    ParseFailure failure;
    std::shared_ptr<const FilterNode> root;
    bool ok = Lex(text, tokens, failure);
    if (ok) {
        Parser parser(std::move(tokens));
        root = parser.Parse();
        ok = !parser.Failed();
        if (!ok)
            failure = parser.Failure();
    }
    if (!ok) {
        error.position = failure.pos;
        error.expected = failure.expected;
        error.message = failure.message;
        return false;
    }
    m_root = root;
    m_text = text;
    error = FilterError();
    return true;
}

bool Filter::Parse(const std::string& text, Filter& out, FilterError& error)
{
    return out.Compile(text, error);
}

bool Filter::Matches(const EventFields& event) const
{
    return !m_root || Eval(*m_root, event);
}

const std::vector<std::string>& FilterFieldNames()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> v;
        for (const FieldInfo& f : kFields)
            v.push_back(f.name);
        for (const std::string& d : DecodedFieldNames())
            v.push_back(d);
        return v;
    }();
    return names;
}

}  // namespace analysis
