// Driver module parameters: the run-time files and the modprobe options
// line, byte for byte, with the old file kept beside the new one.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "unit_support.h"
#include "vsdmgt.h"
#include "vx_core.h"

namespace {

using namespace std::string_literals;

class ModParam : public testing::Test {
protected:
    void SetUp() override {
        dir_ = make_temp_dir();
        memcpy(saved_dir_, vx_modparam_dir, sizeof saved_dir_);
        memcpy(saved_conf_, vx_modprobe_conf, sizeof saved_conf_);
        ASSERT_LT(dir_.size() + 20, sizeof vx_modparam_dir);
        snprintf(vx_modparam_dir, sizeof vx_modparam_dir, "%s/p/", dir_.c_str());
        snprintf(vx_modprobe_conf, sizeof vx_modprobe_conf, "%s/vxfcdrv.conf", dir_.c_str());
        ASSERT_EQ(mkdir((dir_ + "/p").c_str(), 0755), 0);
    }
    void TearDown() override {
        memcpy(vx_modparam_dir, saved_dir_, sizeof saved_dir_);
        memcpy(vx_modprobe_conf, saved_conf_, sizeof saved_conf_);
        remove_tree(dir_);
    }
    void write(const std::string& path, const std::string& bytes) {
        FILE* f = fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr) << path;
        fwrite(bytes.data(), 1, bytes.size(), f);
        fclose(f);
    }
    std::string param(const char* name) { return dir_ + "/p/" + name; }
    std::string conf() const { return vx_modprobe_conf; }
    std::string backup() const { return conf() + ".bak"; }

    std::string dir_;
    char saved_dir_[sizeof vx_modparam_dir];
    char saved_conf_[sizeof vx_modprobe_conf];
};

TEST_F(ModParam, RunTimeFiles) {
    write(param("vxfcqdepth"), "64\n");
    uint32_t value = 0, st = 99;
    ASSERT_EQ(vxapi_get_driver_module_param("vxfcqdepth", &value, &st), 0);
    EXPECT_EQ(value, 64u);
    EXPECT_EQ(st, 0u);

    // Four bytes from the start of the text, whatever the number's length.
    const struct {
        uint32_t value;
        std::string bytes;
        uint32_t reads_back;
    } writes[] = {{7, "7\0\0\0"s, 7}, {128, "128\0"s, 128}, {1234, "1234"s, 1234}, {12345, "1234"s, 1234}};
    for (const auto& w : writes) {
        write(param("vxfcqdepth"), "");
        ASSERT_EQ(vxapi_set_driver_module_param("vxfcqdepth", w.value, &st), 0) << w.value;
        EXPECT_EQ(read_file(param("vxfcqdepth")), w.bytes) << w.value;
        ASSERT_EQ(vxapi_get_driver_module_param("vxfcqdepth", &value, &st), 0);
        EXPECT_EQ(value, w.reads_back);
    }

    // A missing file is a driver without the parameter; an empty one a failed read.
    EXPECT_EQ(vxapi_get_driver_module_param("vxfcnpiv", &value, &st), 1);
    EXPECT_EQ(st, 20u);
    EXPECT_EQ(vxapi_set_driver_module_param("vxfcnpiv", 1, &st), 1);
    EXPECT_EQ(st, 20u);
    EXPECT_NE(access(param("vxfcnpiv").c_str(), F_OK), 0) << "never created";
    write(param("vxfctrace"), "");
    EXPECT_EQ(vxapi_get_driver_module_param("vxfctrace", &value, &st), 1);
    EXPECT_EQ(st, 1u);

    EXPECT_EQ(SDGetDriverModuleParam("vxfcnpiv", &value), SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(SDGetDriverModuleParam("vxfctrace", &value), SDM_STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(SDGetDriverModuleParam("vxfcqdepth", nullptr), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDSetDriverModuleParam(nullptr, 1, 0), SDM_STATUS_INVALID_PARAMETER);
}

TEST_F(ModParam, NamesThatLeaveTheDirectory) {
    // A file the names would reach if they were followed.
    write(dir_ + "/secret", "5\n");
    write(conf(), "options vxfcdrv a=1\n");
    const std::string long_name(VX_MODPARAM_NAME_MAX + 1, 'x');
    for (const std::string& name : {"../secret"s, "a/b"s, ".."s, "x..y"s, ""s, long_name}) {
        uint32_t value = 77, st = 0;
        EXPECT_EQ(vxapi_get_driver_module_param(name.c_str(), &value, &st), 1) << name;
        EXPECT_EQ(st, 6u) << name;
        EXPECT_EQ(value, 77u) << name;
        EXPECT_EQ(vxapi_set_driver_module_param(name.c_str(), 1, &st), 1) << name;
        EXPECT_EQ(vxapi_set_driver_module_param_conf(name.c_str(), 1, &st), 1) << name;
        EXPECT_EQ(st, 6u) << name;
        EXPECT_EQ(SDSetDriverModuleParam(name.c_str(), 1, 1), SDM_STATUS_INVALID_PARAMETER) << name;
    }
    EXPECT_EQ(read_file(dir_ + "/secret"), "5\n");
    EXPECT_EQ(read_file(conf()), "options vxfcdrv a=1\n");
    EXPECT_NE(access(backup().c_str(), F_OK), 0);
    EXPECT_TRUE(vxapi_module_param_name_ok("vxfc.smartsan"));
}

TEST_F(ModParam, ConfigurationFileByteForByte) {
    const std::string long_line = "options vxfcdrv " + std::string(300, 'z') + "\n";
    const struct {
        const char* what;
        std::optional<std::string> old;  // nullopt: no file
        const char* param;
        uint32_t value;
        std::string want;                // the new file, its terminating zero included
    } cases[] = {
        {"no file: one options line", std::nullopt, "vxfcsmartsan", 1, "options vxfcdrv vxfcsmartsan=1\n\0"s},
        {"the flag's digit changes, nothing else", "options vxfcdrv vxfcsmartsan=0 vxfcnpiv=1\n"s, "vxfcsmartsan", 1,
         "options vxfcdrv vxfcsmartsan=1 vxfcnpiv=1\n\0"s},
        {"value 0", "options vxfcdrv vxfcsmartsan=1\n"s, "vxfcsmartsan", 0, "options vxfcdrv vxfcsmartsan=0\n\0"s},
        {"a value past one digit leaves the line", "options vxfcdrv vxfcqdepth=32\n"s, "vxfcqdepth", 64,
         "options vxfcdrv vxfcqdepth=32\n\0"s},
        {"only the first digit of a longer value", "options vxfcdrv vxfcqdepth=32\n"s, "vxfcqdepth", 1,
         "options vxfcdrv vxfcqdepth=12\n\0"s},
        {"appended, later lines dropped", "options vxfcdrv vxfcnpiv=1\n# admin note\noptions other x=1\n"s,
         "vxfcsmartsan", 1, "options vxfcdrv vxfcnpiv=1 vxfcsmartsan=1\n\0"s},
        {"no trailing newline: appended as it stands", "options vxfcdrv vxfcnpiv=1"s, "vxfctrace", 3,
         "options vxfcdrv vxfcnpiv=1vxfctrace=3\n\0"s},
        {"a name at the very end has no digit to change", "options vxfcdrv vxfcsmartsan"s, "vxfcsmartsan", 1,
         "options vxfcdrv vxfcsmartsan\0"s},
        {"a first line past 256 bytes is cut to 255", long_line, "vxfcnpiv", 1,
         long_line.substr(0, 255) + "vxfcnpiv=1\n\0"s},
        {"binary: the line ends at its first zero byte", "opt\0\x01\x02\n"s, "vxfcnpiv", 0, "optvxfcnpiv=0\n\0"s},
    };
    for (const auto& c : cases) {
        unlink(conf().c_str());
        unlink(backup().c_str());
        if (c.old)
            write(conf(), *c.old);
        uint32_t st = 99;
        ASSERT_EQ(vxapi_set_driver_module_param_conf(c.param, c.value, &st), 0) << c.what;
        EXPECT_EQ(st, 0u);
        EXPECT_EQ(read_file(conf()), c.want) << c.what;
        if (c.old)
            EXPECT_EQ(read_file(backup()), *c.old) << c.what << ": the backup holds the old file";
        else
            EXPECT_NE(access(backup().c_str(), F_OK), 0) << c.what;
    }

    // An empty file is a failed read and stays as it is.
    write(conf(), "");
    unlink(backup().c_str());
    uint32_t st = 0;
    EXPECT_EQ(vxapi_set_driver_module_param_conf("vxfcnpiv", 1, &st), 1);
    EXPECT_EQ(st, 1u);
    EXPECT_EQ(read_file(conf()), "");

    // The file keeps its mode, and no temporary file stays behind.
    write(conf(), "options vxfcdrv a=1\n");
    chmod(conf().c_str(), 0600);
    ASSERT_EQ(vxapi_set_driver_module_param_conf("b", 2, &st), 0);
    struct stat sb {};
    ASSERT_EQ(stat(conf().c_str(), &sb), 0);
    EXPECT_EQ(sb.st_mode & 07777, 0600u);
    EXPECT_EQ(read_file(conf()), "options vxfcdrv a=1 b=2\n\0"s);
}

TEST_F(ModParam, PersistOnlyWhatTheDriverHas) {
    write(param("vxfcsmartsan"), "0\n");
    ASSERT_EQ(SDSetDriverModuleParam("vxfcsmartsan", 1, 1), SDM_STATUS_SUCCESS);
    EXPECT_EQ(read_file(param("vxfcsmartsan")), "1\0\0\0"s);
    EXPECT_EQ(read_file(conf()), "options vxfcdrv vxfcsmartsan=1\n\0"s);
    EXPECT_EQ(SDSetDriverModuleParam("vxfcbogus", 1, 1), SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(read_file(conf()), "options vxfcdrv vxfcsmartsan=1\n\0"s) << "an unknown name never reaches the options";
}

}  // namespace
