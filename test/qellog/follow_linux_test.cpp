// `follow` while files grow, are replaced and appear. On Linux alone: here a test can send itself the signal that ends
// it.
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "qellog/command/request.h"
#include "test/support/scratch_folder.h"

namespace {

using namespace qellog;
namespace fs = std::filesystem;

constexpr char kStart[] = "2024/03/05, 14:07:09.042, ML=37, p, 1, 2, s(1):";

class Following {
 public:
  explicit Following(const fs::path& folder) : shown_(output_.Path() / "shown") {
    request_.names = {PathText(folder)};
    thread_ = std::thread([this] {
      std::FILE* const stream = std::fopen(shown_.c_str(), "wb");
      Output output(stream);
      Problems problems;
      RunFollow(request_, problems, output);
      std::fclose(stream);
    });
  }
  ~Following() {
    std::raise(SIGINT);
    thread_.join();
  }
  // Waits until the text is shown; gives all that is shown.
  std::string WaitFor(const std::string& text) const {
    for (int i = 0; i < 1000; ++i) {
      const std::string shown = qel::test::ReadWholeFile(shown_);
      if (shown.find(text) != std::string::npos) return shown;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ADD_FAILURE() << "never shown: " << text;
    return {};
  }

 private:
  qel::test::ScratchFolder output_;
  fs::path shown_;
  Request request_;
  std::thread thread_;
};

TEST(QellogFollow, ShowsWholeLinesAsTheyCome) {
  const qel::test::ScratchFolder folder;
  const fs::path file = folder.Path() / "VemoFileOperation_7EFEA029.txt";
  const auto append = [&](const std::string& bytes) {
    qel::test::WriteWholeFile(file, qel::test::ReadWholeFile(file) + bytes);
  };
  append(kStart + std::string("old\r\n"));
  const Following following(folder.Path());
  following.WaitFor("old");
  append(kStart + std::string("grown\r\n") + kStart + "unfini");
  EXPECT_EQ(following.WaitFor("grown").find("unfini"), std::string::npos);
  append("shed\r\n");
  following.WaitFor("unfinished");
  fs::remove(file);
  qel::test::WriteWholeFile(file, "2024/03/06, 00:00:00.000, ML=37, p, 1, 2, s(1):replaced\r\n");
  following.WaitFor("replaced");
  qel::test::WriteWholeFile(folder.Path() / "VemoLogOutMisc_7EFEA029.txt", kStart + std::string("appeared\r\n"));
  const std::string shown = following.WaitFor("appeared");
  EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 5);
}

}  // namespace
