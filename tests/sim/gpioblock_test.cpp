// The GPIO block file's input side as the simulators drive it (native). The
// edge journal the control writes shows whole in the panel tests.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>

#include "sim/GpioBlock.h"

namespace {

TEST(GpioBlockTest, InputsOfOneBankCanBeDrivenFromSeveralSimulatorsAtOnce)
{
    char dir[] = "/tmp/brennock-gpioblock.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/gpioblock.bin";
    sim::GpioBlockFile block, other;
    std::string error;
    ASSERT_TRUE(block.Open(path, &error)) << error;
    ASSERT_TRUE(other.Open(path, &error)) << error;
    // Lines 33 and 40 share bank 1; neither driver may undo the other's bit.
    std::thread a([&] {
        for (int i = 0; i < 200000; ++i)
            block.SetLevel(33, i & 1);
    });
    for (int i = 0; i < 200000; ++i)
        other.SetLevel(40, !(i & 1));
    a.join();
    EXPECT_TRUE(block.Level(33));
    EXPECT_FALSE(block.Level(40));
    other.SetLevel(40, true);
    EXPECT_TRUE(block.Level(40)) << "both mappings are the same file";
    block.Close();
    other.Close();
    unlink(path.c_str());
    rmdir(dir);
}

}  // namespace
