#include "qellog/text/visible_text.h"

#include <gtest/gtest.h>

#include "qellog/output/json_text.h"
#include "qellog/text/decode_text.h"

namespace {

using namespace qellog;

TEST(QellogText, BecomesValidWhateverItsCodePage) {
  const struct {
    const char *bytes, *text;
  } cases[] = {
      {"plain", "plain"},
      {"\xE7\xA9\xBA", "空"},                            // UTF-8
      {"\x8B\xF3\x82\xAB\x97\x65\x97\xCA", "空き容量"},  // code page 932
      {"16MB\x88\xC8\x8F\xE3\x8B\xF3\x82\xAB\x97\x65\x97\xCA", "16MB以上空き容量"},
      {"\x98\x41\x91\xB1\x8B\xF3", "連続空"},
      {"\xB1\x94\x5C", "ｱ能"},  // half width; a second byte that is a backslash
      {"\xFF\x80", "\\xff\\x80"},

      {"a\x8B", "a\\x8b"},
  };
  for (const auto& [bytes, text] : cases) EXPECT_EQ(DecodeText(bytes), text);
}

TEST(QellogText, ShowsWhatATerminalWouldActOn) {
  EXPECT_EQ(VisibleText("\x1b]0;title\x07\x1b[2J"), "\\x1b]0;title\\x07\\x1b[2J");
  EXPECT_EQ(VisibleText("a\xE2\x80\xAE"
                        "b\xC2\x9B"
                        "c\xEF\xBB\xBF"),
            "a<U+202E>b<U+009B>c<U+FEFF>");
  EXPECT_EQ(VisibleText("a\r\nb\rc\td", LineEnds::kKept), "a\n    b\\x0dc\td");
  EXPECT_EQ(VisibleText("a\r\nb"), "a\\nb");
}

TEST(QellogText, EndsNoScriptElement) {
  const std::string json = EmbeddableJson(JsonOfText("</script><!--\xE2\x80\xA8\"&"));
  EXPECT_EQ(json, "\"\\u003c/script\\u003e\\u003c!--\\u2028\\\"\\u0026\"");
}

}  // namespace
