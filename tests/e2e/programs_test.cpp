// Real programs at work on a WebDAV server as a volume: each does what it does on a disk.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mount.h>

#include "common/posix.h"
#include "tests/e2e/mounting.h"
#include "tests/support/http/dav_server.h"

namespace tarn::test {
namespace {

class ProgramsTest : public MountingTest {
 protected:
  static constexpr std::chrono::minutes kTimeToRun{5};

  // For a client without events: nobody would read them while programs run.
  [[nodiscard]] int MountServer() {
    client.emplace(service).Introduce();
    return Mount(server.Url(), volume, "Web", "webdav");
  }

  // Expects success of a shell; $V is the volume, $R what the server has, and the working directory
  // is a plain folder.
  void Run(const std::string& script) {
    const std::string head = "V='" + volume.string() + "' R='" + server.Root().string() + "'\n";
    Program shell({"sh", "-euc", head + script}, home.Path(), backing, home.Path() / "printed");
    EXPECT_EQ(shell.WaitForEnd(kTimeToRun), 0) << script << "\nprinted so far:\n" << shell.Output();
  }
  [[nodiscard]] bool Has(const std::string& program) {
    Program shell({"sh", "-c", "command -v " + program}, home.Path(), backing, "/dev/null");
    const bool has = shell.WaitForEnd() == 0;
    std::cerr << (has ? "" : "not tried, as it is not here: " + program + "\n");
    return has;
  }
  // For a script that looks at the server, where everything is then.
  void UnmountAndCompare(const std::string& script) {
    EXPECT_EQ(Unmount(volume), 0);
    Run(script);
  }
  [[nodiscard]] UniqueFd Open(const std::string& name, int flags) const {
    return UniqueFd(::open((volume / name).c_str(), flags | O_CLOEXEC, 0644));
  }

  const DavServer server{DavServer::Kind::kApache};
};

// A plain folder "tree" with names and sizes of many kinds.
constexpr const char* kMakeTree = R"sh(
mkdir -p "tree/with space/deep/er" tree/empty
i=0
while [ $i -lt 60 ]; do
  i=$((i + 1))
  head -c $((i * i * 40)) /dev/urandom > "tree/with space/deep/$i"
done
echo text > tree/text
: > tree/nothing
head -c 5000000 /dev/urandom > tree/large
)sh";

TEST_F(ProgramsTest, GitKeepsARepositoryThere) {
  if (!Has("git")) {
    GTEST_SKIP() << "no program git";
  }
  ASSERT_EQ(MountServer(), 0);
  Run(kMakeTree + std::string(R"sh(
export GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@b GIT_COMMITTER_NAME=a GIT_COMMITTER_EMAIL=a@b
git init -q tree && git -C tree add . && git -C tree commit -qm first
git clone -q --no-hardlinks tree "$V/clone"
cd "$V/clone"
echo more >> text && git commit -qam second
git mv text renamed && git commit -qm third
git gc -q && git fsck --strict
test -z "$(git status --porcelain)"
git init -q "$V/new" && cd "$V/new"
echo x > file && git add file && git commit -qm x && git fsck
)sh"));
  UnmountAndCompare(R"sh(
git config --global --add safe.directory '*'
git clone -q "$R/clone" again && git -C again fsck
test "$(git -C again log --format=%s | tr '\n' ' ')" = "third second first "
cmp again/large tree/large
)sh");
}

TEST_F(ProgramsTest, ArchivesAreUnpackedAndFoldersCopied) {
  ASSERT_EQ(MountServer(), 0);
  Run(kMakeTree + std::string(R"sh(
tar cf tree.tar tree && mkdir "$V/tar" && tar xf tree.tar -C "$V/tar"
diff -r tree "$V/tar/tree"
tar cf "$V/tree.tar" -C "$V/tar" tree && tar tf "$V/tree.tar" > /dev/null
)sh"));
  std::string compare =
      "diff -r tree \"$R/tar/tree\"\ntar df \"$R/tree.tar\" tree | grep -v 'time differs' && exit "
      "1\n";
  if (Has("zip") && Has("unzip")) {
    Run(R"sh(zip -qr tree.zip tree && unzip -q tree.zip -d "$V/zip" && diff -r tree "$V/zip/tree")sh");
    compare += "diff -r tree \"$R/zip/tree\"\n";
  }
  if (Has("rsync")) {
    Run(R"sh(
rsync -a --stats tree/ "$V/rsync/" | grep -q 'files transferred: 63'
rsync -ac --stats tree/ "$V/rsync/" > stats
grep -q 'files transferred: 0' stats || { cat stats; exit 1; }
echo other > tree/text
rsync -ac --stats tree/ "$V/rsync/" | grep -q 'files transferred: 1$'
echo text > tree/text
)sh");
    compare += "diff -rq tree \"$R/rsync\" | grep -v '/text differ' && exit 1\n";
  }
  UnmountAndCompare(compare + "true");
}

TEST_F(ProgramsTest, ADatabaseStaysWhole) {
  if (!Has("sqlite3")) {
    GTEST_SKIP() << "no program sqlite3";
  }
  ASSERT_EQ(MountServer(), 0);
  Run(R"sh(
sqlite3 "$V/db" 'create table t(id integer primary key, text)'
for n in 1 2 3; do
  sqlite3 "$V/db" "begin; with recursive c(x) as (select 1 union all select x+1 from c where x<2000)
    insert into t(text) select hex(randomblob(50)) from c; commit;"
  sqlite3 "$V/db" "begin; delete from t; rollback;"
done
sqlite3 "$V/db" "update t set text = 'x' where id % 7 = 0; vacuum;"
test "$(sqlite3 "$V/db" 'pragma integrity_check; select count(*) from t')" = "ok
6000"
)sh");
  UnmountAndCompare(R"sh(cp "$R/db" db
test "$(sqlite3 db 'pragma integrity_check; select count(*) from t where text = "x"')" = "ok
857")sh");
}

TEST_F(ProgramsTest, EditorsAndShellsSaveAsTheyDo) {
  ASSERT_EQ(MountServer(), 0);
  Run(R"sh(
cd "$V"
echo first > text
for i in 1 2 3 4 5; do
  mv text text~ && echo "version $i" > text && rm text~
  echo "line $i" >> log
  cp text text~ && echo "then $i" > .text.swp && mv .text.swp text
done
test "$(cat text text~)" = "then 5
version 5"
mv log LOG && test "$(ls)" = "LOG
text
text~"
touch -d '2020-02-02 02:02:02' text
chmod 644 text && ! chmod 755 text 2> error && grep -q 'not permitted' error && rm error
! ln text hard 2> /dev/null && ! ln -s text soft 2> /dev/null
truncate -s 3 LOG && truncate -s 6 LOG && dd if=/dev/zero of=sparse bs=1 seek=3000000 count=1 status=none
flock text sh -c '! flock -n text true'
flock -n text true
)sh");
  UnmountAndCompare(R"sh(
cd "$R"
test "$(cat text text~)" = "then 5
version 5"
printf 'lin\0\0\0' | cmp LOG
head -c 3000001 /dev/zero | cmp sparse
test "$(ls)" = "LOG
sparse
text
text~"
)sh");
}

TEST_F(ProgramsTest, AFullDiskIsToldToTheProgramThatWritesAndHarmsNothingElse) {
  const fs::path journals = home.MakeFolder("Library/Application Support/tarnsvc/_unsent_");
  if (::mount("tmpfs", journals.c_str(), "tmpfs", 0, "size=4m,mode=700") != 0) {
    GTEST_SKIP() << "no file system of a small size may be mounted here";
  }
  ASSERT_EQ(MountServer(), 0);
  const std::string closed(1 << 20, 'c');
  const auto stop_server = [&](int signal) {
    for (const pid_t process : ChildrenOf(server.Pid())) {
      ASSERT_EQ(::kill(process, signal), 0);
    }
  };
  UniqueFd kept = Open("closed", O_WRONLY | O_CREAT);
  {
    const UniqueFd file = Open("too large", O_WRONLY | O_CREAT);
    ASSERT_NO_FATAL_FAILURE(stop_server(SIGSTOP));
    ASSERT_TRUE(WriteAll(kept.get(), closed.data(), closed.size()));
    ASSERT_EQ(::close(kept.release()), 0);
    const std::string piece(1 << 20, 'x');
    int error = 0;
    for (int i = 0; i < 8 && error == 0; ++i) {
      error = ::write(file.get(), piece.data(), piece.size()) < 0 ? errno : 0;
    }
    EXPECT_EQ(error, ENOSPC);
    ASSERT_NO_FATAL_FAILURE(stop_server(SIGCONT));
    EXPECT_EQ(::unlink((volume / "too large").c_str()), 0);
  }
  EXPECT_EQ(FileContent(volume / "closed"), closed);
  WriteFile(volume / "next", "fits again");
  EXPECT_EQ(Unmount(volume), 0);
  EXPECT_EQ(server.ReadFile("closed"), closed);
  EXPECT_EQ(server.ReadFile("next"), "fits again");
  EXPECT_FALSE(fs::exists(server.Root() / "too large"));
  EXPECT_EQ(::umount2(journals.c_str(), MNT_DETACH), 0);
}

// 2 GiB where TARN_LARGE_FILE is set, which take as much again at the server.
TEST_F(ProgramsTest, AFileEightTimesAsLargeAsTheCache) {
  const int mib = std::getenv("TARN_LARGE_FILE") != nullptr ? 2048 : 256;
  const fs::path cache = home.MakeFolder("cache");
  const std::string options = "size=" + std::to_string(mib / 8) + "m,mode=700";
  ASSERT_EQ(::mount("tmpfs", cache.c_str(), "tmpfs", 0, options.c_str()), 0);
  WriteFile(home.Path() / "Library/Application Support/tarnsvc/tarncache.ini",
            "[CACHE]\r\npath = " + cache.string() + "\r\nsize = 1\r\n");
  Run("N=" + std::to_string(mib) + R"sh(
truncate -s ${N}M large
for at in 0 $((N / 3)) $((N * 2 / 3)) $((N - 8)); do
  dd if=/dev/urandom of=large bs=1M count=8 seek=$at conv=notrunc status=none
done)sh");
  ASSERT_EQ(MountServer(), 0);
  Run("cp --sparse=never large \"$V/large\" && sync \"$V/large\"");
  UnmountAndCompare("cmp large \"$R/large\"");
  ASSERT_EQ(MountServer(), 0);
  Run("cmp large \"$V/large\"");
  const std::string change =
      " bs=4096 count=1 seek=" + std::to_string(mib * 150) + " conv=notrunc,fsync status=none\n";
  Run("dd if=/dev/zero of=\"$V/large\"" + change);
  UnmountAndCompare("dd if=/dev/zero of=large" + change + "cmp large \"$R/large\"");
  EXPECT_EQ(::umount2(cache.c_str(), MNT_DETACH), 0);
}

}  // namespace
}  // namespace tarn::test
