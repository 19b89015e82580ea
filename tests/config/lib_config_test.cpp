// Configuration file: classification and repairs, queries, editing, output.
#include <gtest/gtest.h>

#include "support/config_text.h"
#include "support/exception_text.h"
#include "support/scratch_dir.h"

#include <climits>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "zqcommon/bug.h"
#include "zqcommon/lib_config.h"

namespace {

std::string written(Config_File& cfg, const std::string& header = "") {
  std::ostringstream out;
  EXPECT_TRUE(cfg.write(out, header));
  return out.str();
}

}  // namespace

TEST(ConfigLine, ClassificationAndRepairs) {
  // Text as read -> kind, name, value, comment and the text kept.
  const struct { const char* text; LINE::eLineTypes type; const char *name, *value, *comment, *data; } rows[] = {
      {"[Net", LINE::SECTION, "Net", "", "", "[Net]"},
      {"[ a ] # c", LINE::SECTION, " a ", "", " c", "[ a ] # c"},
      {"  key =   some value   # note", LINE::ENTRY, "key", "some value", " note", nullptr},
      {"my key=5", LINE::ENTRY, "my", "5", "", nullptr},  // the name ends at the last blank before '='
      {"my key =5", LINE::ENTRY, "my key", "5", "", nullptr},
      {"k = \"a # b\" # c", LINE::ENTRY, "k", "\"a # b\"", " c", nullptr},
      {"k = \\\"a # b", LINE::ENTRY, "k", "\\\"a", " b", nullptr},  // an escaped quote opens nothing
      {"k = # only comment", LINE::ENTRY, "k", "", " only comment", nullptr},
      {"k =   ", LINE::ENTRY, "k", "", "", "k ="},
      {" \t ", LINE::FILLER, "", "", "", ""},
  };
  for (const auto& r : rows) {
    LINE l(r.text, 1);
    EXPECT_EQ(l.type, r.type) << r.text;
    EXPECT_EQ(l.Name(), r.name) << r.text;
    EXPECT_EQ(l.Value(), r.value) << r.text;
    EXPECT_EQ(std::string(l.Comment()), r.comment) << r.text;
    EXPECT_TRUE(!r.data || l.data == r.data) << r.text << " kept as " << l.data;
  }
  for (const char* filler : {"= value", "no assignment", "[]", "# k = v", ""}) {
    EXPECT_TRUE(LINE(filler, 1).IsFiller()) << filler;
    EXPECT_EQ(LINE(filler, 1).Name(), "") << filler;
  }
}

TEST(ConfigFile, QueriesFollowTheSectionAndCaseRules) {
  Config_File cfg = config_from_text(
      "orphan = 1\n"
      "[General]\n"
      "name = first # c1\n"
      "Name = second\n"
      "empty =\n"
      "; junk line\n"
      "[zeta]\n"
      "x = 9\n");
  // Section, name -> value: nothing before the first section, the first of
  // two names that differ in case only, nothing past the next header.
  const char* const queries[][3] = {{"", "orphan", "def"}, {"GENERAL", "NAME", "first"},
                                    {"general", "name", "first"}, {"General", "empty", ""},
                                    {"General", "x", "def"}};
  for (const auto& q : queries) EXPECT_EQ(cfg.get_entry(q[0], q[1], "def"), q[2]) << q[0] << "." << q[1];
  std::string comment;
  int line = 0;
  EXPECT_EQ(cfg.get_entry("General", "name", "", &comment, &line), "first");
  EXPECT_EQ(comment, " c1");
  EXPECT_EQ(line, 3);
  EXPECT_EQ(cfg.get_entry("nope", "x", "d", nullptr, &line), "d");
  EXPECT_EQ(line, INT_MIN);

  EXPECT_FALSE(config_from_text("[General]\nName = v\n", false).has_section("general"));

  EXPECT_EQ(cfg.get_sections(), (std::vector<std::string>{"General", "zeta"}));
  EXPECT_EQ(cfg.get_section_entries("general"),
            (std::vector<std::string>{"name", "Name", "empty"}));
  EXPECT_TRUE(cfg.get_section_entries("missing").empty());
  EXPECT_EQ(cfg.Size(), 9u);  // eight lines and the empty one after the last break
}

TEST(ConfigFile, SectionLookupsThrowTheirTexts) {
  Config_File cfg = config_from_text("[a]\nk = 1\n[empty]\n");
  SECTION a = cfg["A"];
  EXPECT_EQ(a["K"].Value(), "1");
  EXPECT_EQ(a.get_entry("k").Line(), 2);
  EXPECT_EQ(exception_text([&] { a["nope"]; }), "Entry not in section");
  EXPECT_EQ(exception_text([&] { cfg["empty"]["k"]; }), "Section is empty");
  EXPECT_EQ(exception_text([&] { cfg.get_section("zz"); }), "No section by that name");
  EXPECT_EQ(exception_text([&] { cfg.get_line(99); }), "Line not in config file");
  EXPECT_THROW(cfg["empty"]["k"], std::underflow_error);
  Config_File none;
  EXPECT_EQ(exception_text([&] { none.get_section("a"); }), "No section by that name");
  EXPECT_FALSE(none.has_section("a"));
}

TEST(ConfigFile, MagicLineAndLongLines) {
  Config_File ok = config_from_text("#!cfg v2\n[s]\nk=v\n", true, "#!cfg");
  EXPECT_EQ(ok.get_entry("s", "k", ""), "v");
  EXPECT_EQ(ok.get_line(1).data, "[s]");  // the magic is not stored
  Config_File exact = config_from_text("#!cfg\n[s]\n", true, "#!cfg");
  EXPECT_TRUE(exact.has_section("s"));
  Config_File wrong = config_from_text("#!cfgv2\n[s]\nk=v\n", true, "#!cfg");
  EXPECT_EQ(wrong.Size(), 0u);
  Config_File miss;
  EXPECT_FALSE(miss.parse(std::string()));

  // 1023 characters fit; a longer line is cut there and ends the parse.
  const std::string fits(1021, 'a'), too_long(1500, 'b');
  Config_File cfg = config_from_text("[s]\nk=" + fits + "\nl=" + too_long + "\n[after]\n");
  EXPECT_EQ(cfg.get_entry("s", "k", ""), fits);
  EXPECT_EQ(cfg.get_line(3).data, "l=" + too_long.substr(0, 1021));
  EXPECT_FALSE(cfg.has_section("after"));

  // A header at the limit without ']' is repaired within the limit, so writing
  // it back does not cut the next parse short.
  Config_File edge = config_from_text("[" + std::string(1022, 'h') + "\n[b]\nk = v\n");
  EXPECT_EQ(config_from_text(written(edge)).get_entry("b", "k", ""), "v");
  EXPECT_EQ(edge.get_line(1).data.size(), 1023u);
  Config_File crlf_at_limit = config_from_text("[s]\r\nk=" + fits + "\r\r\nm = 1\r\n");
  EXPECT_EQ(crlf_at_limit.get_entry("s", "m", ""), "1");
  Config_File last_at_limit = config_from_text("[s]\nk=" + fits);
  EXPECT_EQ(last_at_limit.get_entry("s", "k", ""), fits);
  EXPECT_EQ(last_at_limit.Size(), 2u);

  // Line ends: CR LF and stray CRs are stripped; NUL bytes stay in the text.
  Config_File crlf = config_from_text(std::string("[s]\r\nk = v\r\r\nz = a\0b\n", 21));
  EXPECT_EQ(crlf.get_entry("s", "k", ""), "v");
  EXPECT_EQ(crlf.get_entry("s", "z", ""), std::string("a\0b", 3));
}

// A named file is read in 64 KiB blocks and cut in memory: it must give the
// lines a stream of the same bytes gives, at every edge of the line rules, also
// where a line or the CRs after an over-long one cross a block's end.
TEST(ConfigFile, FileAndStreamGiveTheSameLines) {
  ScratchDir dir;
  const std::string path = dir / "cut.cfg";
  const std::string fits(1021, 'a'), limit(1023, 'c');
  std::string pad;
  while (pad.size() < 65536 - 1200) pad += "k = v # c\n";
  const std::string texts[] = {"", "\n", "[s]\nk=v", "[s]\nk=v\n\n", std::string("[s]\r\nk = v\r\r\nz = a\0b\n", 21),
                               "[s]\nk=" + fits + "\nl=" + std::string(1500, 'b') + "\n[after]\n",
                               "[s]\r\nk=" + fits + "\r\r\nm = 1\r\n", limit, limit + "\n", limit + "\r\r\r\nx=1\n",
                               limit + "\r\r", limit + "x\n[t]\n", "[s]\rk=v\r",
                               pad + "[s]\n" + limit + std::string(3000, '\r') + "\nx=1\n",
                               pad + limit + std::string(70000, '\r') + "\n[t]\n", pad + limit + "\r\rx\n[u]\n",
                               pad + "l=" + std::string(1500, 'b') + "\n[after]\n"};
  for (const std::string& text : texts) {
    for (const std::string magic : {"", "#!m"}) {
      const std::string bytes = magic.empty() ? text : magic + "\n" + text;
      std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
      Config_File from_file(path, magic);
      Config_File from_stream = config_from_text(bytes, true, magic);
      EXPECT_EQ(from_file.Size(), from_stream.Size()) << bytes.size() << " bytes: " << bytes.substr(0, 40);
      EXPECT_EQ(written(from_file), written(from_stream)) << bytes.size() << " bytes: " << bytes.substr(0, 40);
    }
  }
  Config_File missing("/nonexistent/zq.cfg", "#!m");
  EXPECT_EQ(missing.Size(), 0u);
}

TEST(ConfigFile, EditingKeepsLayout) {
  Config_File cfg = config_from_text("[s]\nk = 12 # keep\n\n[t]\nx = 1\n");
  LINE& k = cfg.get_section("s")["k"];
  k = std::string("123456");
  EXPECT_EQ(k.data, "k = 123456 # keep");
  k = true;
  EXPECT_EQ(k.Value(), "1");
  k = 2.5;
  EXPECT_EQ(k.Value(), "2.500000");
  k = 40L;
  EXPECT_EQ(k.data, "k = 40 # keep");
  // Comment edits: replaced after its '#', removed with it, added anew.
  for (const auto& edit : {std::pair<const char*, const char*>{"new", "k = 40 # new"},
                           {"", "k = 40 "}, {"again", "k = 40  # again"}}) {
    k.Comment() = edit.first;
    EXPECT_EQ(k.data, edit.second);
    EXPECT_EQ(std::string(k.Comment()), *edit.first ? std::string(" ") + edit.first : "");
  }

  // add_entry: after the last entry; collisions return the line already there;
  // on a section that holds entries every call computes the same number.
  SECTION s = cfg.get_section("s");
  LINE* added = s.add_entry("n", 5, "c");
  EXPECT_EQ(added, &cfg.get_line(3));  // line 3 is the blank line after k ...
  EXPECT_EQ(added->data, "");          // ... and a taken number keeps its line
  EXPECT_EQ(cfg.get_entry("s", "n", "none"), "none");
}

TEST(ConfigFile, AddSectionNumberingAndWrite) {
  Config_File cfg;
  SECTION s = cfg.add_section("new");
  EXPECT_EQ(s.startline, 1000);
  EXPECT_EQ(cfg.get_line(0).data, "");
  LINE* a = s.add_entry("a", std::string("1"));
  LINE* b = s.add_entry("b", 2.0);
  EXPECT_EQ(a->Line(), 1001);
  EXPECT_EQ(b->Line(), 1002);  // the SECTION object stays empty: consecutive numbers
  SECTION again = cfg.get_section("new");
  LINE* c = again.add_entry("c", std::string("3"));
  LINE* d = again.add_entry("d", std::string("4"));
  EXPECT_EQ(c->Line(), 1003);
  EXPECT_EQ(d, c);  // the same number every time: the first call's line
  SECTION second = cfg.add_section("two");
  EXPECT_EQ(second.startline, 2004);

  EXPECT_EQ(written(cfg, "#!magic"),
            "#!magic\r\n\r\n[new]\r\na = 1\r\nb = 2.000000\r\nc = 3\r\n\r\n[two]\r\n");
  cfg.clear();
  EXPECT_TRUE(cfg.Size() == 0 && cfg.get_sections().empty());
}

TEST(ConfigFile, FileRoundTripKeepsCommentsAndLayout) {
  ScratchDir dir;
  const std::string path = dir / "roundtrip.cfg";
  std::ofstream(path, std::ios::binary)
      << "#!app\n# header comment\n[Net]\n  port = 4711   # tcp\n\nhost=\"a#b\"\n";
  Config_File cfg(path, "#!app");
  EXPECT_EQ(cfg.get_entry("net", "PORT", ""), "4711");
  const std::string before = cfg.get_hash();
  ASSERT_TRUE(cfg.write(path, cfg.get_magic()));
  Config_File back(path, "#!app");
  // The empty line after the last line break is written as a line of its own,
  // so each write-and-read cycle adds one blank line at the end.
  EXPECT_EQ(written(back), written(cfg) + "\r\n");
  EXPECT_EQ(back.get_hash(), before);
  EXPECT_EQ(slurp(path).substr(0, 41), "#!app\r\n# header comment\r\n[Net]\r\n  port = ");

  // The fingerprint ignores order, comments and layout but not values.
  Config_File a = config_from_text("[s]\nx = 1 # c\ny=2\n[t]\nz=3\n");
  Config_File b = config_from_text("[t]\n  z = 3\n[s]\n\ny = 2\nx=1\n");
  Config_File c = config_from_text("[s]\nx = 1\ny=2\n[t]\nz=4\n");
  EXPECT_EQ(a.get_hash(), b.get_hash());
  EXPECT_NE(a.get_hash(), c.get_hash());
  EXPECT_EQ(a.get_hash().size(), 40u);

  Config_File missing("/nonexistent/zq.cfg");
  EXPECT_EQ(missing.Size(), 0u);
  EXPECT_FALSE(cfg.write("/nonexistent/dir/x.cfg"));
}

TEST(ConfigFile, HugeOddAndUnreadableInput) {
  // CR-only line ends do not end lines: the text stays one line, kept whole.
  Config_File cr = config_from_text("[s]\rk=v\r");
  EXPECT_EQ(cr.Size(), 1u);
  EXPECT_EQ(cr.get_line(1).data, "[s]\rk=v");

  // A 100 MB file of 1000-character entries is read completely.
  ScratchDir dir;
  const std::string path = dir / "huge.cfg";
  const int kLines = 100000;
  {
    std::ofstream out(path, std::ios::binary);
    out << "[big]\n";
    const std::string filler(990, 'v');
    for (int i = 0; i < kLines; ++i) out << "k" << i << " = " << filler << "\n";
  }
  Config_File huge(path);
  EXPECT_EQ(huge.Size(), static_cast<size_t>(kLines) + 2);
  EXPECT_EQ(huge.get_entry("big", "k" + std::to_string(kLines - 1), "").size(), 990u);

  Config_File directory(::testing::TempDir());  // opens, but cannot be read
  EXPECT_LE(directory.Size(), 1u);
  EXPECT_TRUE(directory.get_sections().empty());
}

TEST(ConfigFile, DiagnosticsFollowTheDebugLevel) {
  ::testing::internal::CaptureStderr();
  config_from_text("[Net\n= v\n[]\n");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  DEBUG_LEVEL = 1;
  ::testing::internal::CaptureStderr();
  config_from_text("[Net\n= v\n[]\n");
  DEBUG_LEVEL = 0;
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "libconfig: inserting missing closing bracket ']' after found Section opening '[', "
            "line #1:[Net]\n"
            "libconfig: ignoring empty entry after found assignment '=', line #2:= v\n"
            "libconfig: ignoring empty section, line #3:\n");
}
