// The data-file lookup: the working folder first, then share/zentiq beside the
// test program's own folder, and the bare name when neither has the file.
#include "base/datadir.h"

#include "base_testutil.h"

namespace fs = std::filesystem;

TEST(Datadir, WorkingFolderFirstThenBesideTheProgram) {
  std::string installed = datadir_installed();
  ASSERT_FALSE(installed.empty());
  // The test program runs from <build>/tests/base: its share/zentiq is
  // <build>/tests/base/../share/zentiq.
  EXPECT_EQ(
      fs::weakly_canonical(installed),
      fs::weakly_canonical(fs::read_symlink("/proc/self/exe").parent_path() / "../share/zentiq"));
  std::string name = "datadir_test_" + std::to_string(getpid()) + ".hlp";
  base_test::ScratchDir work;
  fs::path share = fs::path(installed).parent_path();
  bool made_share = !fs::exists(share), made_dir = !fs::exists(installed);
  fs::create_directories(installed);

  EXPECT_EQ(datadir_find(name.c_str()), name); // nowhere: the working folder's name
  base_test::write_file(installed + "/" + name, "installed");
  EXPECT_EQ(datadir_find(name.c_str()), installed + "/" + name);
  base_test::write_file(name, "local");
  EXPECT_EQ(datadir_find(name.c_str()), name);

  fs::remove(installed + "/" + name);
  if (made_share)
    fs::remove_all(share);
  else if (made_dir)
    fs::remove(installed);
}
