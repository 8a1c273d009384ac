// The watch of the incoming folder: what wakes it, what does not, the
// overflow of the kernel's queue, wake() from another thread.
#include "apps/svc/upload/FolderWatch.h"

#include "apps/svc/FolderFd.h"
#include "tests/IntakeTestUtil.h"
#include "tests/TestUtil.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = boost::filesystem;
using namespace std::chrono_literals;
using qxsvc::FolderWatch;
using Clock = std::chrono::steady_clock;

namespace {

char const* name(FolderWatch::Event event) {
  switch (event) {
    case FolderWatch::Event::timeout: return "timeout";
    case FolderWatch::Event::changed: return "changed";
    case FolderWatch::Event::overflow: return "overflow";
    case FolderWatch::Event::woken: return "woken";
  }
  return "?";
}

// Two folders: the watched one, and one beside it to prepare entries in.
struct Folders {
  qxtest::TempDir temp;
  fs::path watched = temp / "in";
  fs::path beside = temp / "stage";
  Folders() {
    fs::create_directories(watched);
    fs::create_directories(beside);
  }
};

}  // namespace

TEST(FolderWatch, NothingHappeningTimesOutAfterTheTimeout) {
  Folders f;
  FolderWatch watch(qxtest::openFolder(f.watched).get());
  auto const start = Clock::now();
  EXPECT_STREQ(name(watch.wait(150ms)), "timeout");
  auto const took = Clock::now() - start;
  EXPECT_GE(took, 150ms);
  EXPECT_LT(took, 2s);
  EXPECT_STREQ(name(watch.wait(0ms)), "timeout");
}

TEST(FolderWatch, EachWayOfArrivingWakesIt) {
  struct Case {
    char const* what;
    void (*arrive)(Folders const&);
  };
  Case const cases[] = {
      {"a file renamed in", [](Folders const& f) {
         qxtest::writeFile(f.beside / "a.pdf", "pdf");
         fs::rename(f.beside / "a.pdf", f.watched / "a.pdf");
       }},
      {"a folder renamed in", [](Folders const& f) {
         fs::create_directories(f.beside / "drop");
         qxtest::writeFile(f.beside / "drop" / "b.pdf", "pdf");
         fs::rename(f.beside / "drop", f.watched / "drop");
       }},
      {"a file written and closed", [](Folders const& f) { qxtest::writeFile(f.watched / "c.pdf", "written in place"); }},
      {"a folder made", [](Folders const& f) { fs::create_directory(f.watched / "copied"); }},
  };
  for (Case const& c : cases) {
    Folders f;
    FolderWatch watch(qxtest::openFolder(f.watched).get());
    // The event arrives while the watch waits, from another thread.
    std::thread arriving([&] {
      std::this_thread::sleep_for(50ms);
      c.arrive(f);
    });
    auto const start = Clock::now();
    FolderWatch::Event const event = watch.wait(5s);
    auto const took = Clock::now() - start;
    arriving.join();
    EXPECT_STREQ(name(event), "changed") << c.what;
    EXPECT_LT(took, 2s) << c.what;
    // Its events were read: the next wait has nothing.
    EXPECT_STREQ(name(watch.wait(50ms)), "timeout") << c.what;
  }
}

TEST(FolderWatch, NamesTheEntriesMovedInAndOnlyThose) {
  Folders f;
  FolderWatch watch(qxtest::openFolder(f.watched).get());
  qxtest::writeFile(f.beside / "moved in.pdf", "m");
  fs::create_directories(f.beside / "folder");
  qxtest::writeFile(f.watched / "written.pdf", "w");  // closed after writing: not moved in
  fs::rename(f.beside / "moved in.pdf", f.watched / "moved in.pdf");
  fs::rename(f.beside / "folder", f.watched / "folder");
  EXPECT_STREQ(name(watch.wait(2s)), "changed");
  EXPECT_EQ((std::vector<std::string>{"moved in.pdf", "folder"}), watch.takeMovedIn());
  EXPECT_EQ(std::vector<std::string>{}, watch.takeMovedIn());
}

TEST(FolderWatch, AFileOpenedButNotYetClosedDoesNotWakeIt) {
  Folders f;
  FolderWatch watch(qxtest::openFolder(f.watched).get());
  std::ofstream out((f.watched / "copying.pdf").string(), std::ios::binary);
  out << "half";
  out.flush();
  EXPECT_STREQ(name(watch.wait(100ms)), "timeout");
  out.close();
  EXPECT_STREQ(name(watch.wait(2s)), "changed");
}

TEST(FolderWatch, ChangesOutsideTheFolderDoNotWakeIt) {
  Folders f;
  fs::create_directories(f.watched / "sub");
  FolderWatch watch(qxtest::openFolder(f.watched).get());
  qxtest::writeFile(f.beside / "x.pdf", "beside");
  qxtest::writeFile(f.watched / "sub" / "deeper.pdf", "below a sub-folder");
  EXPECT_STREQ(name(watch.wait(100ms)), "timeout");
}

TEST(FolderWatch, FollowsTheFolderNotItsPath) {
  Folders f;
  FolderWatch watch(qxtest::openFolder(f.watched).get());
  fs::rename(f.watched, f.temp / "moved");
  fs::create_directories(f.watched);
  qxtest::writeFile(f.watched / "at-the-old-path.pdf", "x");
  EXPECT_STREQ(name(watch.wait(100ms)), "timeout");
  qxtest::writeFile(f.temp / "moved" / "in-the-folder.pdf", "x");
  EXPECT_STREQ(name(watch.wait(2s)), "changed");
}

TEST(FolderWatch, WakeFromAnotherThreadEndsTheWait) {
  Folders f;
  FolderWatch watch(qxtest::openFolder(f.watched).get());
  std::thread waker([&] {
    std::this_thread::sleep_for(50ms);
    watch.wake();
  });
  auto const start = Clock::now();
  FolderWatch::Event const event = watch.wait(10s);
  auto const took = Clock::now() - start;
  waker.join();
  EXPECT_STREQ(name(event), "woken");
  EXPECT_LT(took, 5s);
  // Many wakes before a wait are one.
  for (int i = 0; i < 100000; ++i) watch.wake();
  EXPECT_STREQ(name(watch.wait(1s)), "woken");
  EXPECT_STREQ(name(watch.wait(0ms)), "timeout");
}

TEST(FolderWatch, AWakeLeavesWaitingEventsForTheNextWait) {
  Folders f;
  FolderWatch watch(qxtest::openFolder(f.watched).get());
  qxtest::writeFile(f.watched / "a.pdf", "x");
  watch.wake();
  EXPECT_STREQ(name(watch.wait(1s)), "woken");
  EXPECT_STREQ(name(watch.wait(1s)), "changed");
}

// More events than the kernel queues (fs.inotify.max_queued_events) make
// it drop the rest and say so; the watch then asks for a full rescan. The
// limit is the machine's: one file renamed in and out again gives an event
// per move in, as many as the limit needs, without making a file each.
TEST(FolderWatch, AnOverflowedQueueAsksForARescan) {
  long queued = 0;
  if (FILE* limit = ::fopen("/proc/sys/fs/inotify/max_queued_events", "r")) {
    if (::fscanf(limit, "%ld", &queued) != 1) queued = 0;
    ::fclose(limit);
  }
  ASSERT_GT(queued, 0) << "/proc/sys/fs/inotify/max_queued_events cannot be read";
  Folders f;
  FolderWatch watch(qxtest::openFolder(f.watched).get());
  qxtest::writeFile(f.beside / "a.pdf", "x");
  int const in = ::open(f.watched.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  int const out = ::open(f.beside.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(in, 0);
  ASSERT_GE(out, 0);
  // A name of its own for each move in: the kernel folds an event into the
  // one before it when they are alike.
  for (long i = 0; i < queued + 64; ++i) {
    std::string const name = "a" + std::to_string(i) + ".pdf";
    ASSERT_EQ(0, ::renameat(out, "a.pdf", in, name.c_str())) << "move in " << i;
    ASSERT_EQ(0, ::renameat(in, name.c_str(), out, "a.pdf")) << "move out " << i;
  }
  ::close(in);
  ::close(out);
  EXPECT_STREQ(name(watch.wait(2s)), "overflow");
  // The whole queue was read.
  EXPECT_STREQ(name(watch.wait(50ms)), "timeout");
}

TEST(FolderWatch, ANonFolderDescriptorIsRefusedNamingWhatFailed) {
  qxtest::TempDir temp;
  qxtest::writeFile(temp / "file", "x");
  qxsvc::FileFd const file(::open((temp / "file").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(file.valid());
  try {
    FolderWatch watch(file.get());
    ADD_FAILURE() << "a file was watched as a folder";
  } catch (std::system_error const& e) {
    EXPECT_EQ(e.code().value(), ENOTDIR);
    EXPECT_EQ(std::string(e.what()), "folder watch: inotify_add_watch on the folder's descriptor: Not a directory");
  }
}
