#include "host/output/event_format.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pax/enumerations.h"
#include "tests/e2e/json_value.h"

namespace arvo::host {
namespace {

using arvo::test::JsonValue;
using arvo::test::ParseJson;

pax::ProductEvent IssueEvent(const std::string& path) {
  pax::ProductEvent e;
  e.eventType = pax::event_type::kSystemIntegrityIssue;
  e.severity = pax::severity::kCritical;
  e.time = 1732168260;
  e.Add(pax::field::kPath, pax::FieldValue::Text8(path));
  e.Add(pax::field::kFileModificationType, pax::FieldValue::U32(pax::modification::kObjectCreated));
  e.Add(pax::field::kFimRuleId, pax::FieldValue::Text16(u"rule-1"));
  e.Add(pax::field::kTaskId, pax::FieldValue::U64(11));
  return e;
}

// The byte strings the escaping must carry: valid UTF-8 of every length,
// bytes that are never valid, cut and overlong sequences, encoded surrogates.
const std::vector<std::string>& AwkwardPaths() {
  static const std::vector<std::string> paths = {
      "/plain/ascii",
      "/caf\xC3\xA9/\xE2\x82\xAC/\xF0\x9F\x98\x80",  // 2-, 3- and 4-byte UTF-8
      "/latin1/\xE9t\xE9",                           // lone continuation-less leads
      "/ff/\xFF\xFE",
      "/cut/\xE2\x82",            // a 3-byte sequence cut short
      "/overlong/\xC0\x80",       // overlong NUL
      "/surrogate/\xED\xA0\x80",  // UTF-8 encoding of U+D800
      "/high/\xF4\x90\x80\x80",   // above U+10FFFF
      "/mixed/\x80\xC3\xA9\xBF",
      std::string("/ctl/\x01\x1F\x7F\t\n\"\\", 12),
  };
  return paths;
}

TEST(EventFormatTest, JsonHasTheDocumentedShape) {
  EXPECT_EQ(FormatEventJson(IssueEvent("/etc/x")),
            R"({"id":0,"eventType":67,"eventTypeName":"SystemIntegrityIssue","severity":0,)"
            R"("severityName":"Critical","time":1732168260,"fields":[)"
            R"({"id":66,"name":"Path","value":"/etc/x"},)"
            R"({"id":54,"name":"FileModificationType","value":7},)"
            R"({"id":69,"name":"FimRuleId","value":"rule-1"},)"
            R"({"id":8,"name":"TaskId","value":11}]})");
}

TEST(EventFormatTest, JsonOmitsNamesTheVocabularyLacks) {
  pax::ProductEvent e;
  e.eventType = 4000;
  e.severity = 77;
  e.Add(4000, pax::FieldValue::U32(1));
  const std::string line = FormatEventJson(e);
  JsonValue v;
  ASSERT_TRUE(ParseJson(line, v)) << line;
  EXPECT_EQ(v.Find("eventTypeName"), nullptr);
  EXPECT_EQ(v.Find("severityName"), nullptr);
  ASSERT_EQ(v["fields"].items.size(), 1u);
  EXPECT_EQ(v["fields"].items[0].Find("name"), nullptr);
  EXPECT_EQ(v["time"].Int(), -1);
}

TEST(EventFormatTest, JsonEscapesQuotesBackslashesAndControls) {
  const std::string line = FormatEventJson(IssueEvent(std::string("a\"b\\c\nd\x01\x7F", 9)));
  EXPECT_NE(line.find(R"("value":"a\"b\\c\nd\u0001\u007f")"), std::string::npos) << line;
  EXPECT_EQ(line.find('\n'), std::string::npos);
}

TEST(EventFormatTest, EveryPathRoundTripsThroughStrictJson) {
  for (const std::string& path : AwkwardPaths()) {
    pax::ProductEvent e = IssueEvent(path);
    e.Add(pax::field::kOriginalPath, pax::FieldValue::Text8(path));
    const std::string line = FormatEventJson(e);
    JsonValue v;
    ASSERT_TRUE(ParseJson(line, v)) << line;
    const auto& fields = v["fields"].items;
    ASSERT_EQ(fields.size(), 5u);
    EXPECT_EQ(fields[0]["value"].Bytes(), path) << line;
    EXPECT_EQ(fields[4]["value"].Bytes(), path) << line;
  }
}

TEST(EventFormatTest, InvalidBytesBecomeLoneSurrogateEscapes) {
  const std::string line = FormatEventJson(IssueEvent("/x\xFF\xC3\xA9\x80"));
  EXPECT_NE(line.find("\"/x\\udcff\xC3\xA9\\udc80\""), std::string::npos) << line;
}

TEST(EventFormatTest, Utf16TextsWithLoneSurrogatesStayLossless) {
  pax::ProductEvent e;
  const std::u16string text = {u'a', 0xD800, u'b', 0xDC80, 0xD83D, 0xDE00};
  e.Add(pax::field::kTaskName, pax::FieldValue::Text16(text));
  JsonValue v;
  ASSERT_TRUE(ParseJson(FormatEventJson(e), v));
  EXPECT_EQ(v["fields"].items[0]["value"].text, text);
}

TEST(EventFormatTest, TextFormIsOneReadableLine) {
  pax::ProductEvent e = IssueEvent("/etc/new\nline\xFF");
  e.fields.insert(e.fields.begin(),
                  pax::EventField{pax::field::kOriginalPath, pax::FieldValue::Text8("/etc/old")});
  e.Add(pax::field::kTaskName, pax::FieldValue::Text16(u"My task"));
  const std::string line = FormatEventText(e);
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_NE(line.find(" SystemIntegrityIssue Critical /etc/new\\x0aline\\xff ObjectCreated "),
            std::string::npos)
      << line;
  EXPECT_NE(line.find("OriginalPath=/etc/old"), std::string::npos) << line;
  EXPECT_NE(line.find("TaskName=\"My task\""), std::string::npos) << line;
  EXPECT_NE(line.find("TaskId=11"), std::string::npos) << line;
}

TEST(EventFormatTest, TheProcessBehindAChangeIsNamedAndAnExitedOneOnlyByPid) {
  ProcessOrigin origin;
  origin.pid = 812;
  origin.parentPid = 1;
  origin.uid = 0;
  origin.loginUid = 1000;
  origin.executable = "/usr/bin/vim\xFF";
  origin.command = "vim";
  JsonValue v;
  ASSERT_TRUE(ParseJson(FormatEventJson(IssueEvent("/etc/x"), &origin), v));
  EXPECT_EQ(v["process"]["pid"].Int(), 812);
  EXPECT_EQ(v["process"]["loginUid"].Int(), 1000);
  EXPECT_EQ(v["process"]["command"].text, u"vim");
  EXPECT_EQ(v["fields"].items.size(), 4u);
  const std::string text = FormatEventText(IssueEvent("/etc/x"), &origin);
  EXPECT_NE(text.find(" process=812 ppid=1 uid=0 loginuid=1000 exe=/usr/bin/vim\\xff comm=vim"),
            std::string::npos)
      << text;

  // A process known only by its pid: gone, or hidden by /proc.
  for (const bool gone : {true, false}) {
    ProcessOrigin only;
    only.pid = 9;
    (gone ? only.exited : only.hidden) = true;
    const std::string state = gone ? "exited" : "hidden";
    ASSERT_TRUE(ParseJson(FormatEventJson(IssueEvent("/etc/x"), &only), v));
    EXPECT_TRUE(v["process"][state].boolean);
    EXPECT_EQ(v["process"].Find(gone ? "hidden" : "exited"), nullptr);
    EXPECT_EQ(v["process"].Find("executable"), nullptr);
    EXPECT_NE(FormatEventText(IssueEvent("/etc/x"), &only).find(" process=9(" + state + ")"),
              std::string::npos);
  }
}

TEST(EventFormatTest, DetectEventsCarryKindPathAndDigest) {
  pax::Sha256Digest digest{};
  digest[0] = 0xAB;
  digest[31] = 0x01;
  pax::DetectEvent moved{1, "/old\xFF", &digest, nullptr};
  JsonValue v;
  ASSERT_TRUE(ParseJson(FormatDetectJson(moved), v));
  EXPECT_EQ(v["detectType"].Int(), 1);
  EXPECT_EQ(v["path"].Bytes(), "/old\xFF");
  EXPECT_EQ(v["sha256"].Bytes(), "ab" + std::string(60, '0') + "01");

  const std::string text = FormatDetectText(pax::DetectEvent{0, "/etc/x", nullptr, nullptr});
  EXPECT_NE(text.find(" detection Change /etc/x"), std::string::npos) << text;
}

}  // namespace
}  // namespace arvo::host
