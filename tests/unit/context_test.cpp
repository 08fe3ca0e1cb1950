// Relay contexts in a real Lua state against the fake relay, with the machine-wide semaphore file
// /dev/shm/sem.zovrelay made beforehand so that its removal (or survival) is observable.
#include <gtest/gtest.h>
#include <lua.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "fake_control.h"
#include "module/module.h"

namespace {

bool semaphoreFileExists() { return access(kSemaphoreFile, F_OK) == 0; }

void makeSemaphoreFile() {
    int fd = open(kSemaphoreFile, O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
}

// Runs CreateContext protected; on success destroys the context again.
int createAndDestroy(lua_State* L) {
    ZOVRELAY_Context* context = nullptr;
    int pushed = CreateContext(L, context);
    if (pushed != 0) return pushed;
    lua_pushboolean(L, context != nullptr && FakeRelay_OpenContexts() == 1);
    DestroyContext(context);
    lua_pushboolean(L, context == nullptr);
    return 2;
}

class ContextTest : public ::testing::Test {
protected:
    void SetUp() override {
        FakeRelay_Reset();
        L = luaL_newstate();
        lua_pushcfunction(L, createAndDestroy);
    }
    void TearDown() override {
        lua_close(L);
        EXPECT_EQ(FakeRelay_OpenContexts(), 0);
        unlink(kSemaphoreFile);
    }
    lua_State* L = nullptr;
};

TEST_F(ContextTest, SuccessPushesNothingAndDestroyRemovesTheFile) {
    makeSemaphoreFile();
    lua_pushinteger(L, 42);  // a number serves as a path
    ASSERT_EQ(lua_pcall(L, 1, LUA_MULTRET, 0), 0);
    ASSERT_EQ(lua_gettop(L), 2);
    EXPECT_TRUE(lua_toboolean(L, 1));
    EXPECT_TRUE(lua_toboolean(L, 2));
    EXPECT_FALSE(semaphoreFileExists());
    ASSERT_EQ(FakeRelay_CallCount(), 2u);
    EXPECT_STREQ(FakeRelay_CallName(0), "CreateContext");
    EXPECT_STREQ(FakeRelay_CallName(1), "DestroyContext");
}

TEST_F(ContextTest, RefusalRemovesTheFileAndPushesTheTriple) {
    for (ZOVRELAY_Status status : {0, -3, -9}) {
        makeSemaphoreFile();
        FakeRelay_ScriptStatus("CreateContext", status);
        lua_settop(L, 0);
        lua_pushcfunction(L, createAndDestroy);
        lua_pushstring(L, "repo");
        ASSERT_EQ(lua_pcall(L, 1, LUA_MULTRET, 0), 0);
        ASSERT_EQ(lua_gettop(L), 3);
        EXPECT_TRUE(lua_isnil(L, 1));
        EXPECT_EQ(lua_tointeger(L, 2), status);
        EXPECT_EQ(std::string(lua_tostring(L, 3)), "status " + std::to_string(status));
        EXPECT_FALSE(semaphoreFileExists());
    }
}

TEST_F(ContextTest, MissingPathRaisesAndLeavesTheFile) {
    makeSemaphoreFile();
    lua_pushboolean(L, 1);
    ASSERT_NE(lua_pcall(L, 1, 0, 0), 0);
    EXPECT_EQ(std::string(lua_tostring(L, -1)), "bad argument #1 to '?' (expected repository path)");
    EXPECT_TRUE(semaphoreFileExists());
    EXPECT_EQ(FakeRelay_CallCount(), 0u);
}

}  // namespace
