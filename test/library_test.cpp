// The shared object as a player loads it.

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <malloc.h>

namespace {

/// Loads the library, calls it, and unloads it; false where one of these can't be done.
bool load_once()
{
    void *library = dlopen(GOLT_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return false;
    const auto version = reinterpret_cast<const char *(*)()>(dlsym(library, "GOLT_version"));
    const bool works = version != nullptr && version() != nullptr;
    dlclose(library);
    return works && dlopen(GOLT_LIBRARY, RTLD_NOW | RTLD_NOLOAD) == nullptr;
}

/// Whether it can be done rounds times.
bool load(int rounds)
{
    while (rounds > 0 && load_once())
        --rounds;
    return rounds == 0;
}

// The first rounds fill the heap's own store of small blocks, which counts as used. Under the address
// sanitizer, whose heap isn't counted here, its own check for leaks holds.
TEST(Library, LoadsAndUnloadsSilentlyAndLeavesNothingBehind)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    bool works = load(20);
    const size_t used = mallinfo2().uordblks;
    works = works && load(100);
    const size_t used_after = mallinfo2().uordblks;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(works) << dlerror();
    EXPECT_EQ(used_after, used);
}

}  // namespace
