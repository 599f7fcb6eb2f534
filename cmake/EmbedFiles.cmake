# Makes a C++ source of the parts of the reader's page: cmake -DPAGE=<folder> -DCHART=<folder> -DOUTPUT=<source> -P this.
function(embed result)
  set(literals "")
  foreach(path IN LISTS ARGN)
    file(READ ${path} content)
    string(REGEX REPLACE "//# sourceMappingURL=[^\n]*" "" content "${content}")  # nothing is loaded from anywhere
    string(APPEND literals "    R\"page(${content})page\",\n")
  endforeach()
  set(${result} "${literals}" PARENT_SCOPE)
endfunction()

embed(frame ${PAGE}/page.html)
embed(styles ${CHART}/dygraph.min.css ${PAGE}/page.css)
embed(scripts ${CHART}/dygraph.min.js ${PAGE}/text.js ${PAGE}/timeline.js ${PAGE}/lines.js ${PAGE}/reports.js ${PAGE}/main.js)
file(WRITE ${OUTPUT} "#include \"qellog/html/page_files.h\"

namespace qellog {
namespace {

constexpr std::string_view kFrames[] = {
${frame}};
constexpr std::string_view kStyles[] = {
${styles}};
constexpr std::string_view kScripts[] = {
${scripts}};

}  // namespace

const std::string_view kPageFrame = kFrames[0];
const std::span<const std::string_view> kPageStyles = kStyles;
const std::span<const std::string_view> kPageScripts = kScripts;

}  // namespace qellog
")
