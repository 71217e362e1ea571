// halvo-check: its exact messages and its exit status, for faulty files and for an update that would fail.

#include <string>

#include "sandbox.h"

using CheckSandbox = Sandbox;

// The table: the file that the running daemon has read, if any; the file to check; the expected messages and
// exit status.
TEST_F(CheckSandbox, FaultsAndTrapsAreNamedWithTheirLines)
{
    const auto check = [](const std::string& files) {
        return run("sh -c 'cd /tmp; " HALVO_CHECK " " + files + " >/dev/full; echo $?'").output;
    };
    for (const auto& row : read_table("checked_files.txt", 3)) {
        write_file("/tmp/old", row[0]);
        write_file("/tmp/f", row[1]);
        EXPECT_EQ(check(row[0].empty() ? "f" : "--against old f"), row[2]);
    }
    EXPECT_EQ(check("--errors-only f"), "0\n");
    write_config(read_file(HALVO_DATA "halvo.conf"));
    EXPECT_EQ(check(""), "0\n");
}
