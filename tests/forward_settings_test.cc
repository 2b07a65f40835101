#include <gmock/gmock.h>

#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "agent/credentials.h"
#include "agent/forward_url.h"
#include "agent/settings_sections.h"
#include "testing/temp_dir.h"

namespace tidegate::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(ForwardUrlTest, TakesUrlsApart) {
  ForwardUrl url;
  std::string error;
  ASSERT_TRUE(ParseForwardUrl("http://db:8428", &url, &error)) << error;
  EXPECT_EQ(url.host + "|" + std::to_string(url.port) + url.target, "db|8428/write");
  ASSERT_TRUE(ParseForwardUrl("https://me:p%40s@[::1]/api/v2/write?org=o&token=t", &url, &error));
  EXPECT_EQ(url.host + "|" + std::to_string(url.port) + url.target,
            "::1|443/api/v2/write?org=o&token=t");
  EXPECT_EQ(url.user + "|" + url.password + "|" + url.shown, "me|p@s|https://[::1]/api/v2/write");
  ASSERT_TRUE(ParseForwardUrl("http://db/?db=x", &url, &error)) << error;
  EXPECT_EQ(url.target, "/write?db=x");
  for (const char* bad : {"http://a{b}", "http://a%20b/w", "http://[1::2::3]:1", "http://a\\b"}) {
    EXPECT_FALSE(ParseForwardUrl(bad, &url, &error)) << bad;
    EXPECT_THAT(error, HasSubstr("is no name or address of a host"));
  }
}

TEST(SettingsSectionsTest, AreTakenOutWithTheirLinesAndRefusedWithThem) {
  std::string text =
      "ttl = 5\n [rule.a-1] # one\nx = a # b#c\n\n  tag=[ 'k=\\' , # first\n\"q\\\"]#\" ,]\nx=2\n"
      "[rule.b]\nurl = http://h/#p";
  const std::vector<SettingsSection> sections = TakeSections("f", {"rule"}, {"ttl"}, &text);
  ASSERT_EQ(sections.size(), 2U);
  const SettingsSection& first = sections[0];
  EXPECT_EQ(first.name + std::to_string(first.line), "a-12");
  EXPECT_THAT(first.Texts("x"), ElementsAre("a", "2"));
  EXPECT_THAT(first.Texts("tag"), ElementsAre("k=\\", "q\"]#"));
  EXPECT_EQ(first.LineOf("tag"), 5U);
  EXPECT_EQ(sections[1].Text("url"), "http://h/#p");
  EXPECT_THAT(text, testing::ContainsRegex("^ttl = 5\n +\n +\n\n +\n +\n +\n +\n +$"));

  const std::pair<const char*, const char*> kCases[] = {
      {"[rule]\n", "f:1: \"[rule.]\" has no good name"},
      {"\n[roule.a]\n", "f:2: there is no setting \"[roule.a]\", the nearest is \"[rule.NAME]\""},
      {"[rule.a b]\n", "f:1: \"[rule.a b]\" has no good name"},
      {"[rule.a]\n[rule.b]\n[rule.a]\n", "f:3: \"[rule.a]\" is in line 1 already"},
      {"[rule.a]\n\nsecret\nx = 1", "f:3: this is no setting"},
      {"[rule.a]\nx =\ny = 1", "f:2: a value is missing"},
      {"[rule.a]\nx = 'a' b", "f:2: there is something after the value"},
      {"[rule.a]\nx = \"a\\n\"", "f:2: in double quotes a backslash"},
      {"[rule.a]\nx = \"a\n\"", "f:2: a text lacks the quote"},
      {"[rule.a]\nx = [a,\nb", "f:3: a list lacks its ]"},
      {"[rule.a]\nx = ['a' b]", "f:2: the values of a list are parted by commas"},
  };
  for (auto [bad, error] : kCases) {
    std::string given = bad;
    try {
      TakeSections("f", {"rule"}, {"ttl"}, &given);
      ADD_FAILURE() << bad;
    } catch (const SettingsError& failure) {
      EXPECT_THAT(failure.what(), testing::StartsWith(error));
    }
  }
  EXPECT_THROW(static_cast<void>(first.Text("x")), SettingsError);
  EXPECT_THROW(first.CheckKeys({"x"}), SettingsError);
}

TEST(CredentialsTest, AreReadAndRefusedWithoutBeingTold) {
  const test::TempDir folder;
  const std::string path = folder.File("secret");
  const std::string file = "cannot use the file " + path;
  const auto write = [&](const std::string& text) { std::ofstream(path) << text; };
  CredentialSettings settings;
  settings.headers = {"X-Scope: s3cret", "Api-Key:s3cret"};
  settings.bearer_file = path;
  write("s3cret\r\n");
  const Credentials read = ReadCredentials(settings);
  EXPECT_THAT(read.headers,
              ElementsAre("X-Scope: s3cret", "Api-Key:s3cret", "Authorization: Bearer s3cret"));

  const struct {
    std::function<void()> spoil;
    const char* setting;
    std::string error;
  } kCases[] = {
      {[&] { settings.headers = {"X-Scope: a\r\nX-Other: s3cret"}; }, "header",
       "the value of X-Scope has a line end or another control character"},
      {[&] { settings.headers = {"s3cret"}; }, "header", "it is no header"},
      {[&] { settings.headers = {"Bad name: s3cret"}; }, "header", "it is no header"},
      {[&] { settings.headers = {"X-Scope: "}; }, "header", "X-Scope has no value"},
      {[&] { settings.headers = {"content-length: 3"}; }, "header", "content-length is for the"},
      {[&] { settings.headers = {"authorization: s3cret"}; }, "bearer-file", "there is an Auth"},
      {[&] { write("s3cret\ns3cret"); }, "bearer-file", file + ": it has"},
      {[&] { write("\n"); }, "bearer-file", file + ": it is empty"},
      {[&] { write(std::string(20000, 's')); }, "bearer-file", file + ": it is longer than 16 KiB"},
      {[&] { settings.bearer_file = folder.path(); }, "bearer-file",
       "cannot use the file " + folder.path() + ": it is no plain file"},
      {[&] { settings.password_file = path; }, "password-file", "there is no user"},
      {[&] { settings.client_key = path; }, "client-key", "there is no client-cert"},
      {[&] { settings.ca_file = path + "x"; }, "ca-file", file + "x: No such file or directory"},
  };
  for (const auto& test : kCases) {
    settings = {};
    settings.bearer_file = path;
    write("s3cret");
    if (std::string(test.setting) != "bearer-file") settings.bearer_file.clear();
    test.spoil();
    try {
      ReadCredentials(settings);
      ADD_FAILURE() << test.error;
    } catch (const CredentialError& failure) {
      EXPECT_EQ(failure.setting, test.setting);
      EXPECT_THAT(failure.what(), testing::StartsWith(test.error));
      EXPECT_THAT(failure.what(), testing::Not(HasSubstr("s3cret")));
    }
  }
}

}  // namespace
}  // namespace tidegate::agent
