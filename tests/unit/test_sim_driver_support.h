// Helpers of the driver emulation's unit tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace vxsim_test {

// A fresh directory under the working directory (never the host's /tmp),
// removed with everything in it at the end of the test.
class TempDir : public ::testing::Test {
protected:
    void SetUp() override {
        std::string tmpl = (std::filesystem::current_path() / "sim-driver-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    static void write_text(const std::string& p, const std::string& t) { std::ofstream(p, std::ios::binary) << t; }
    static void write_bytes(const std::string& p, const std::vector<uint8_t>& v) {
        write_text(p, {v.begin(), v.end()});
    }
    static std::string read_text(const std::string& p) {
        std::ostringstream out;
        out << std::ifstream(p, std::ios::binary).rdbuf();
        return out.str();
    }
    static std::vector<uint8_t> read_bytes(const std::string& p) {
        const std::string t = read_text(p);
        return {t.begin(), t.end()};
    }
    // Bytes whose value depends on the position, so a misplaced copy shows.
    static std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
        std::vector<uint8_t> v(n);
        for (size_t i = 0; i < n; ++i)
            v[i] = static_cast<uint8_t>((i * 7 + (i >> 8) + seed) & 0xFF);
        return v;
    }

    std::string dir_;
};

}  // namespace vxsim_test
