#include "Framework/Foundation/PZFileSys.h"

#include <gtest/gtest.h>

#include "support/Interposed.h"
#include "support/TempDir.h"

namespace {

int no_sync() {
    return 0;
}
pztest::Interposed<int()> sync_call("sync");

}  // namespace

extern "C" void sync() noexcept {
    sync_call();
}

namespace {

class PZFileSysTest : public testing::Test {
protected:
    void SetUp() override {
        sync_call.Reset();
        sync_call.Replace(no_sync);
    }

    pztest::TempDir dir;
    PZFileSys::ST_FIND_DATA data = {};
};

}  // namespace

TEST_F(PZFileSysTest, FindsTheFilesOfAPattern) {
    pztest::write_file(dir.File("a.mp3"), "1");
    pztest::write_file(dir.File("a.MP3"), "1");
    PZFileSys files;
    ASSERT_TRUE(files.FindFirst(dir.File("*.mp3").c_str(), data));
    EXPECT_STREQ("a.mp3", data.name);
    EXPECT_EQ(static_cast<unsigned int>(PZFileSys::en_ATTR_FILE), data.attribute);
    EXPECT_FALSE(files.FindNext(data));
}

TEST_F(PZFileSysTest, MovesAndRemovesATree) {
    ASSERT_TRUE(PZFileSys::CreateDirectory(dir.File("a/b/c").c_str(), true));
    pztest::write_file(dir.File("a/b/c/f"), "text");
    ASSERT_TRUE(PZFileSys::Move(dir.File("a").c_str(), dir.File("z").c_str()));
    EXPECT_FALSE(PZFileSys::IsExist(dir.File("a").c_str()));
    EXPECT_EQ("text", pztest::read_file(dir.File("z/b/c/f")));
    EXPECT_TRUE(PZFileSys::RemoveDirectory(dir.File("z").c_str(), true));
    EXPECT_FALSE(PZFileSys::IsExist(dir.File("z").c_str()));
}
