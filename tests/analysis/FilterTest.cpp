// The display filter language: every field, every operator, precedence,
// numbers in decimal and hex, and bad input with its position.
#include "analysis/Filter.h"

#include <gtest/gtest.h>

using namespace analysis;

namespace {

MsgInfo Event(int32_t type, int direction, const std::string& hex, const std::string& text = "")
{
    MsgInfo e;
    e.type = type;
    e.direction = direction;
    e.packet.PacketData = hex;
    e.packet.Status = "NoError";
    e.str = QString::fromStdString(text);
    e.eventG.eventCount = 1;
    return e;
}

EventFields Fields(const MsgInfo& e, int64_t number = 1, int phase = 5, double timeMs = 0.0)
{
    return MakeEventFields(e, number, phase, timeMs);
}

bool Match(const std::string& filter, const EventFields& f)
{
    Filter compiled;
    FilterError error;
    EXPECT_TRUE(compiled.Compile(filter, error)) << filter << ": " << error.message;
    return compiled.Matches(f);
}

FilterError Error(const std::string& filter)
{
    Filter compiled;
    FilterError error;
    EXPECT_FALSE(compiled.Compile(filter, error)) << filter;
    return error;
}

// A control error of -3 from the receiver, in power transfer, number 42.
EventFields ControlErrorMinus3()
{
    MsgInfo e = Event(0x03, 2, "03 FD FE ", "ControlError -3.0% @120000HZ");
    e.common.typeString = "ControlError ";
    return Fields(e, 42, 5, 1234.5);
}

}  // namespace

TEST(Filter, EmptyFilterMatchesEverything)
{
    Filter f;
    FilterError error;
    EXPECT_TRUE(f.Compile("   ", error));
    EXPECT_TRUE(f.IsEmpty());
    EXPECT_TRUE(f.Matches(ControlErrorMinus3()));
    EXPECT_TRUE(f.Compile("", error));
    EXPECT_TRUE(f.Matches(EventFields()));
}

TEST(Filter, NumberAndTimeCompareWithEveryOperator)
{
    const EventFields f = ControlErrorMinus3();
    EXPECT_TRUE(Match("number == 42", f));
    EXPECT_FALSE(Match("number != 42", f));
    EXPECT_TRUE(Match("number < 43", f));
    EXPECT_FALSE(Match("number < 42", f));
    EXPECT_TRUE(Match("number <= 42", f));
    EXPECT_TRUE(Match("number > 41", f));
    EXPECT_FALSE(Match("number > 42", f));
    EXPECT_TRUE(Match("number >= 42", f));
    EXPECT_TRUE(Match("number == 0x2A", f));
    EXPECT_TRUE(Match("number == 0x2a", f));
    EXPECT_TRUE(Match("time > 1234", f));
    EXPECT_TRUE(Match("time < 1234.6", f));
    EXPECT_FALSE(Match("time >= 1235", f));
}

TEST(Filter, DirPhaseStatusByName)
{
    const EventFields f = ControlErrorMinus3();
    EXPECT_TRUE(Match("dir == rx", f));
    EXPECT_TRUE(Match("dir == RX", f));
    EXPECT_TRUE(Match("dir != tx", f));
    EXPECT_FALSE(Match("dir == none", f));
    EXPECT_TRUE(Match("dir", f));
    MsgInfo v = Event(kTypeViolation, 0, "");
    EXPECT_TRUE(Match("dir == none", Fields(v)));
    EXPECT_FALSE(Match("dir", Fields(v)));

    EXPECT_TRUE(Match("phase == power", f));
    EXPECT_TRUE(Match("phase == \"power\"", f));
    EXPECT_TRUE(Match("phase > calibration", f));
    EXPECT_FALSE(Match("phase < config", f));
    for (int p = 1; p <= 5; ++p) {
        const EventFields g = Fields(Event(1, 2, "01 80 81 "), 1, p);
        EXPECT_TRUE(Match(std::string("phase == ") + PhaseWord(p), g)) << p;
        EXPECT_TRUE(Match("phase == " + std::to_string(p), g)) << p;
    }

    EXPECT_TRUE(Match("status == ok", f));
    EXPECT_FALSE(Match("status == error", f));
    MsgInfo bad = Event(kTypeChecksumOrProprietary, 2, "03 FD 00 ");
    bad.common.typeString = "ChecksumError";
    bad.packet.Status = "Error";
    bad.eventG.failureCount = 1;
    EXPECT_TRUE(Match("status == error", Fields(bad)));
    // A session file keeps no Status: the event's kind tells it.
    bad.packet.Status.clear();
    EXPECT_TRUE(Match("status == error", Fields(bad)));
    EXPECT_TRUE(Match("status == error", Fields(v)));
}

TEST(Filter, TypeByNumberAndByNameCaseInsensitive)
{
    const EventFields f = ControlErrorMinus3();
    EXPECT_TRUE(Match("type == 3", f));
    EXPECT_TRUE(Match("type == 0x03", f));
    EXPECT_TRUE(Match("type < 4", f));
    EXPECT_TRUE(Match("type == \"ControlError\"", f));
    EXPECT_TRUE(Match("type == controlerror", f));
    EXPECT_TRUE(Match("type == \"Control Error\"", f));
    EXPECT_FALSE(Match("type == \"Identification\"", f));
    EXPECT_TRUE(Match("type != \"Identification\"", f));
    EXPECT_TRUE(Match("type contains \"control\"", f));

    MsgInfo id = Event(0x71, 2, "71 13 00 5A EB 4A 1F 82 00 ");
    id.common.typeString = "Identification ";
    EXPECT_TRUE(Match("type == \"Identification\"", Fields(id)));
    // The same header from the transmitter is another class.
    MsgInfo cap = Event(0x31, 1, "31 0A 14 03 ");
    cap.common.typeString = "Power Transmitter Capability";
    EXPECT_TRUE(Match("type == FSKCapability", Fields(cap)));
    EXPECT_TRUE(Match("type == \"Power Transmitter Capability\"", Fields(cap)));
    EXPECT_FALSE(Match("type == ReceivedPower1_2_2", Fields(cap)));
    MsgInfo ping = Event(kTypeDigitalPing, 1, "");
    EXPECT_TRUE(Match("type == DigitalPing", Fields(ping)));
    EXPECT_TRUE(Match("type == 253", Fields(ping)));
}

TEST(Filter, TextContainsAndEquals)
{
    const EventFields f = ControlErrorMinus3();
    EXPECT_TRUE(Match("text contains \"-3.0%\"", f));
    EXPECT_FALSE(Match("text contains \"controlerror\"", f));  // case matters in text
    EXPECT_TRUE(Match("text == \"ControlError -3.0% @120000HZ\"", f));
    EXPECT_TRUE(Match("text != \"x\"", f));
}

TEST(Filter, BytesAsSpacedHexOrHexNumber)
{
    const EventFields f = ControlErrorMinus3();
    EXPECT_TRUE(Match("bytes == \"03 FD FE\"", f));
    EXPECT_TRUE(Match("bytes == \"03:fd:fe\"", f));
    EXPECT_TRUE(Match("bytes == \"03fdfe\"", f));
    EXPECT_TRUE(Match("bytes contains 0x03FD", f));
    EXPECT_TRUE(Match("bytes contains \"FD FE\"", f));
    EXPECT_TRUE(Match("bytes contains 0xFE", f));
    EXPECT_FALSE(Match("bytes contains 0xFEFD", f));
    EXPECT_FALSE(Match("bytes == 0x03FD", f));
    EXPECT_TRUE(Match("bytes", f));
    // An odd number of digits takes a leading 0: 0x3FD is 03 FD.
    EXPECT_TRUE(Match("bytes contains 0x3FD", f));
}

TEST(Filter, ReadingMarks)
{
    MsgInfo e = Event(3, 2, "03 01 02 ");
    EXPECT_FALSE(Match("reading", Fields(e)));
    EXPECT_FALSE(Match("reading == recovered", Fields(e)));
    EXPECT_TRUE(Match("reading != recovered", Fields(e)));
    e.packet.reading = "recovered";
    EXPECT_TRUE(Match("reading", Fields(e)));
    EXPECT_TRUE(Match("reading == recovered", Fields(e)));
    EXPECT_FALSE(Match("reading == corrected", Fields(e)));
    e.packet.reading = "corrected";
    EXPECT_TRUE(Match("reading == \"corrected\"", Fields(e)));
}

TEST(Filter, PatternByNameAndByte)
{
    MsgInfo ack = Event(kTypeTxPattern, 1, "FF ");
    MsgInfo nak = Event(kTypeTxPattern, 1, "00 ");
    MsgInfo nd = Event(kTypeTxPattern, 1, "BB ");
    EXPECT_TRUE(Match("pattern == ack", Fields(ack)));
    EXPECT_TRUE(Match("pattern == ACK", Fields(ack)));
    EXPECT_FALSE(Match("pattern == nak", Fields(ack)));
    EXPECT_TRUE(Match("pattern == nak", Fields(nak)));
    EXPECT_TRUE(Match("pattern == nd", Fields(nd)));
    EXPECT_TRUE(Match("pattern == 0xFF", Fields(ack)));
    EXPECT_TRUE(Match("pattern", Fields(nak)));
    EXPECT_FALSE(Match("pattern", ControlErrorMinus3()));
    EXPECT_TRUE(Match("pattern != ack", ControlErrorMinus3()));
}

TEST(Filter, DecodedFieldsOfTheCommonPackets)
{
    const EventFields ce = ControlErrorMinus3();
    EXPECT_TRUE(Match("ce.value == -3", ce));
    EXPECT_TRUE(Match("ce.value < 0", ce));
    EXPECT_FALSE(Match("ce.value > -3", ce));
    EXPECT_TRUE(Match("ce.value", ce));
    EXPECT_FALSE(Match("rp.value", ce));
    EXPECT_FALSE(Match("rp.value < 1000", ce));  // not there: no order holds

    EXPECT_TRUE(Match("rp.value == 64", Fields(Event(0x04, 2, "04 40 44 "))));
    const EventFields rp24 = Fields(Event(0x31, 2, "31 02 39 B9 00 "));
    EXPECT_TRUE(Match("rp.mode == 2", rp24));
    EXPECT_TRUE(Match("rp.value == 0x39B9", rp24));
    EXPECT_FALSE(Match("rp.mode", Fields(Event(0x04, 2, "04 40 44 "))));

    // Identification: version 1.3, manufacturer 0x005a, Ext 1, device 0x6b4a1f82.
    const EventFields id = Fields(Event(0x71, 2, "71 13 00 5A EB 4A 1F 82 00 "));
    EXPECT_TRUE(Match("id.version == \"1.3\"", id));
    EXPECT_TRUE(Match("id.version == 1.3", id));
    EXPECT_TRUE(Match("id.manufacturer == 0x5a", id));
    EXPECT_TRUE(Match("id.manufacturer == 90", id));
    EXPECT_TRUE(Match("id.device == 0x6b4a1f82", id));
    EXPECT_TRUE(Match("id.ext == 1", id));

    // Configuration m0 = 0x0A, m2 = 0x83, m3 = 0x0A, m4 = 0xC0: 5 W, Count 3,
    // window 4 ms at 8 ms, Neg.
    const EventFields conf = Fields(Event(0x51, 2, "51 0A 00 83 0A C0 00 "));
    EXPECT_TRUE(Match("config.power == 5", conf));
    EXPECT_TRUE(Match("config.count == 3", conf));
    EXPECT_TRUE(Match("config.wsize == 4", conf));
    EXPECT_TRUE(Match("config.woff == 8", conf));
    EXPECT_TRUE(Match("config.neg == 1", conf));
    EXPECT_TRUE(Match("config.prop == 1", conf));

    EXPECT_TRUE(Match("ept.code == 1", Fields(Event(0x02, 2, "02 01 03 "))));
    EXPECT_FALSE(Match("ept.code == 2", Fields(Event(0x02, 2, "02 01 03 "))));
}

TEST(Filter, PrecedenceNotOverAndOverOr)
{
    const EventFields f = ControlErrorMinus3();  // number 42, rx, power
    // && before ||: true || (false && false)
    EXPECT_TRUE(Match("number == 42 || dir == tx && phase == ping", f));
    // (true || false) && false
    EXPECT_FALSE(Match("(number == 42 || dir == tx) && phase == ping", f));
    // ! before &&: (!false) && true
    EXPECT_TRUE(Match("!dir == tx && number == 42", f));
    // ! on a parenthesised expression
    EXPECT_FALSE(Match("!(dir == rx || number == 1)", f));
    EXPECT_TRUE(Match("! ! (dir == rx)", f));
    // ! before ||: (!true) || true
    EXPECT_TRUE(Match("!dir == rx || number == 42", f));
    // Words for the logical operators.
    EXPECT_TRUE(Match("not dir == tx and number == 42 or number == 1", f));
    // Left to right with equal binding.
    EXPECT_TRUE(Match("number == 1 || number == 2 || number == 42", f));
    EXPECT_FALSE(Match("number == 42 && dir == rx && phase == ping", f));
}

TEST(Filter, BadInputIsRefusedWithItsPositionAndWhatWasExpected)
{
    FilterError e = Error("number == ");
    EXPECT_EQ(e.position, 10u);
    EXPECT_EQ(e.expected, "a value");
    EXPECT_EQ(e.message, "column 11: expected a value after '=='");

    e = Error("type == 3 && ");
    EXPECT_EQ(e.position, 13u);
    EXPECT_EQ(e.expected, "a field name");

    e = Error("foo == 3");
    EXPECT_EQ(e.position, 0u);
    EXPECT_EQ(e.message, "column 1: expected a field name, not 'foo'");

    e = Error("(number == 1");
    EXPECT_EQ(e.position, 12u);
    EXPECT_EQ(e.expected, "')'");

    e = Error("number == 1)");
    EXPECT_EQ(e.position, 11u);
    EXPECT_EQ(e.expected, "'&&', '||' or the end of the filter");

    e = Error("number = 1");
    EXPECT_EQ(e.position, 7u);
    EXPECT_EQ(e.expected, "'=='");

    e = Error("dir == up");
    EXPECT_EQ(e.position, 7u);
    EXPECT_EQ(e.expected, "rx, tx or none");

    e = Error("ce.value < abc");
    EXPECT_EQ(e.position, 11u);
    EXPECT_EQ(e.expected, "a number");

    e = Error("text == \"open");
    EXPECT_EQ(e.position, 13u);
    EXPECT_EQ(e.expected, "a closing '\"'");

    e = Error("number 5");
    EXPECT_EQ(e.position, 7u);

    e = Error("dir < rx");
    EXPECT_EQ(e.position, 4u);
    EXPECT_EQ(e.expected, "'==' or '!='");

    e = Error("bytes == \"0G\"");
    EXPECT_EQ(e.position, 9u);

    e = Error("number == 12ab");
    EXPECT_EQ(e.position, 10u);
    EXPECT_EQ(e.expected, "a number");

    e = Error("number == 1 & dir == rx");
    EXPECT_EQ(e.position, 12u);
    EXPECT_EQ(e.expected, "'&&'");

    e = Error("phase == lunch");
    EXPECT_EQ(e.position, 9u);
    e = Error("status == fine");
    EXPECT_EQ(e.position, 10u);
    e = Error("reading == maybe");
    EXPECT_EQ(e.position, 11u);
    e = Error("pattern == yes");
    EXPECT_EQ(e.position, 11u);
    e = Error("text < \"a\"");
    EXPECT_EQ(e.position, 5u);
    e = Error("# x");
    EXPECT_EQ(e.position, 0u);
    e = Error("()");
    EXPECT_EQ(e.position, 1u);
}

TEST(Filter, ABadExpressionKeepsTheLastGoodFilter)
{
    Filter f;
    FilterError error;
    ASSERT_TRUE(f.Compile("dir == tx", error));
    EXPECT_FALSE(f.Compile("dir ==", error));
    EXPECT_EQ(f.Text(), "dir == tx");
    EXPECT_FALSE(f.Matches(ControlErrorMinus3()));
}

TEST(Filter, EveryFieldNameIsKnown)
{
    for (const std::string& name : FilterFieldNames()) {
        Filter f;
        FilterError error;
        EXPECT_TRUE(f.Compile(name, error)) << name << ": " << error.message;
    }
    EXPECT_EQ(FilterFieldNames().size(), 10u + DecodedFieldNames().size());
}
