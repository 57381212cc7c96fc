// The export writers: CSV with RFC 4180 quoting, JSON lines, log lines.
#include "analysis/Export.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace analysis;

TEST(Export, CsvFieldsAreQuotedOnlyWhereNeeded)
{
    EXPECT_EQ(CsvField("plain"), "plain");
    EXPECT_EQ(CsvField(""), "");
    EXPECT_EQ(CsvField("a,b"), "\"a,b\"");
    EXPECT_EQ(CsvField("say \"hi\""), "\"say \"\"hi\"\"\"");
    EXPECT_EQ(CsvField("two\nlines"), "\"two\nlines\"");
    EXPECT_EQ(CsvField("cr\r"), "\"cr\r\"");
    EXPECT_EQ(CsvField("ExtendedIdentification "), "\"ExtendedIdentification \"");
}

TEST(Export, CsvRowHasTheColumnsOfTheHeader)
{
    MsgInfo e;
    e.type = 3;
    e.direction = 2;
    e.packet.PacketData = "03 FD FE ";
    e.packet.Status = "NoError";
    e.packet.reading = "recovered";
    e.str = QStringLiteral("ControlError -3.0%, \"odd\" @120000HZ");
    const EventFields f = MakeEventFields(e, 7, 5, 1500.25);
    EXPECT_STREQ(CsvHeader(), "number,time_ms,dir,phase,type,bytes,text,status,reading");
    EXPECT_EQ(CsvRow(f), "7,1500.250,rx,power,0x03 ControlError,03 FD FE,"
                         "\"ControlError -3.0%, \"\"odd\"\" @120000HZ\",ok,recovered");

    MsgInfo v;
    v.type = kTypeViolation;
    v.str = QStringLiteral("Violation: CEP Timeout");
    EXPECT_EQ(CsvRow(MakeEventFields(v, 8, 0, 1600.0)), "8,1600.000,none,,0x100 Violation,,Violation: CEP Timeout,error,");
}

TEST(Export, WriterFormats)
{
    MsgInfo e;
    e.id = 4;
    e.type = 3;
    e.direction = 2;
    e.packet.PacketData = "03 02 01 ";
    e.str = QStringLiteral("ControlError 2.0% @128000HZ");
    const EventFields f = MakeEventFields(e, 4, 5, 0.0);

    std::ostringstream csv;
    ExportWriter c(csv, ExportFormat::Csv);
    c.Begin();
    c.Write(e, f);
    EXPECT_EQ(csv.str(), std::string(CsvHeader()) + "\r\n4,0.000,rx,power,0x03 ControlError,03 02 01,"
                                                    "ControlError 2.0% @128000HZ,ok,\r\n");

    std::ostringstream json;
    ExportWriter j(json, ExportFormat::Json);
    j.Begin();
    j.Write(e, f);
    EXPECT_EQ(json.str(), EventJsonLine(e) + "\n");
    EXPECT_EQ(json.str().find("{\"common\":"), 0u);

    std::ostringstream text;
    ExportWriter t(text, ExportFormat::Text);
    t.Write(e, f);
    EXPECT_EQ(text.str(), "Rx [4] ControlError 2.0% @128000HZ\n");

    // The kinds the log has no line for.
    MsgInfo contract;
    contract.type = kTypeContract;
    std::ostringstream none;
    ExportWriter n(none, ExportFormat::Text);
    n.Write(contract, MakeEventFields(contract, 5, 5, 0.0));
    EXPECT_EQ(none.str(), "");

    ExportFormat fmt;
    EXPECT_TRUE(ParseExportFormat("csv", fmt));
    EXPECT_EQ(fmt, ExportFormat::Csv);
    EXPECT_FALSE(ParseExportFormat("xml", fmt));
}
