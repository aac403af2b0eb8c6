// The sorvan tool's utm and area commands, run as a user runs them.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace {

struct Result {
    int status = -1;
    std::string out;  // standard output and standard error, in that order
};

std::string tool() {
    return std::string(SORVAN_BINARY_DIR) + "/tools/sorvan/sorvan";
}

// Runs `sorvan ARGS` with INPUT (a printf format: backslash-n for a newline) on standard input.
Result run(const std::string& args, const std::string& input = "") {
    // One file per process: ctest runs the tests of this suite in parallel processes.
    const std::string errFile = std::string(::testing::TempDir()) + "sorvan_geodesy_err." +
                                std::to_string(::getpid()) + ".txt";
    const std::string command = "printf '" + input + "' | " + tool() + " " + args + " 2>" + errFile;
    Result result;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[4096];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        result.out.append(buffer, n);
    }
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (FILE* err = std::fopen(errFile.c_str(), "r")) {
        while ((n = std::fread(buffer, 1, sizeof buffer, err)) > 0) {
            result.out.append(buffer, n);
        }
        std::fclose(err);
    }
    return result;
}

class SorvanGeodesyCommands : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!std::filesystem::exists(tool())) {
            GTEST_SKIP() << "the sorvan tool is not built";
        }
    }
};

TEST_F(SorvanGeodesyCommands, UtmConvertsArgumentsBothWays) {
    EXPECT_EQ(run("utm 13.7563,100.5018").out, "47P, 662367, 1521281\n");
    EXPECT_EQ(run("utm --hemisphere -0.0001,100.5018").out, "47S, 667132, 9999989\n");
    EXPECT_EQ(run("utm '47P, 662367, 1521281'").out, "13.756303,100.501804\n");
    // Unquoted, the shell splits the text at its spaces; the pieces are joined back.
    EXPECT_EQ(run("utm 47P, 662367, 1521281 13.7563, 100.5018").out,
              "13.756303,100.501804\n47P, 662367, 1521281\n");
}

TEST_F(SorvanGeodesyCommands, UtmConvertsStandardInputLineByLine) {
    const Result r = run("utm",
                         "13.7563,100.5018\\n47P, 662367, 1521281\\n\\n-33.8688,151.2093\\r\\n"
                         "56H, 334369, 6250948");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "47P, 662367, 1521281\n13.756303,100.501804\n\n56H, 334369, 6250948\n"
              "-33.868804,151.209304\n");
}

TEST_F(SorvanGeodesyCommands, MalformedInputFailsWithAMessage) {
    Result r = run("utm 47p,662367,1521281");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("sorvan utm: expected one upper-case band letter"), std::string::npos)
        << r.out;
    EXPECT_EQ(run("utm 95,100").status, 2);
    EXPECT_EQ(run("utm 13.7,abc").status, 2);
    EXPECT_EQ(run("utm '47P, 66x, 1'").status, 2);
    EXPECT_EQ(run("utm '0P, 1, 1'").status, 2);
    EXPECT_EQ(run("utm --zone").status, 2);
    // Standard input stops at the first bad line, after the good ones before it.
    r = run("utm", "13.7563,100.5018\\nnonsense\\n1,2\\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out,
              "47P, 662367, 1521281\nsorvan utm: line 2: expected LAT,LON or ZONE+BAND, "
              "EASTING, NORTHING, got 'nonsense'\n");
}

TEST_F(SorvanGeodesyCommands, AreaPrintsSquareMetres) {
    EXPECT_EQ(run("area 13,100 13,101 14,101 14,100").out, "12049505796.63\n");
    EXPECT_EQ(run("area 13.75,100.5").out, "0.00\n");
    Result r = run("area");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("no points given"), std::string::npos);
    EXPECT_EQ(run("area 13,100 x,1").status, 2);
    r = run("area --help");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("usage: sorvan area", 0), 0u);
}

}  // namespace
