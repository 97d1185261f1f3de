// Flash images of every adapter family, checked by walkers written here from
// the record formats (not from the builder's code): boot images, FLT locator
// and table, flash description, firmware headers, NVRAM and VPD checksums.
#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "flash.h"
#include "model.h"
#include "vx_adapters.h"

namespace {

using namespace vxsim;
using Bytes = std::vector<uint8_t>;

uint16_t le16(const Bytes& b, size_t at) { return uint16_t(b.at(at) | b.at(at + 1) << 8); }
uint32_t le32(const Bytes& b, size_t at) { return uint32_t(le16(b, at)) | uint32_t(le16(b, at + 2)) << 16; }
bool has_text(const Bytes& b, size_t at, const char* s) {
    return at + std::strlen(s) <= b.size() && std::memcmp(b.data() + at, s, std::strlen(s)) == 0;
}
uint8_t sum8(const Bytes& b, size_t from, size_t to) {
    uint8_t s = 0;
    for (size_t i = from; i < to; ++i)
        s = uint8_t(s + b.at(i));
    return s;
}
uint16_t sum16(const Bytes& b, size_t at, size_t words) {
    uint16_t s = 0;
    for (size_t i = 0; i < words; ++i)
        s = uint16_t(s + le16(b, at + 2 * i));
    return s;
}
Bytes slice(const Bytes& b, size_t at, size_t n) { return Bytes(b.begin() + long(at), b.begin() + long(at + n)); }

// Versions chosen so that the expected encodings below are plain arithmetic.
Adapter make_adapter(uint16_t device_id, uint16_t ssvid = VX_PCI_VENDOR_ID, uint16_t ssdid = 0x0101) {
    Adapter a;
    a.id = "a";
    a.device_id = device_id;
    a.subsystem_vendor_id = ssvid;
    a.subsystem_device_id = ssdid;
    a.serial_number = "VXT0001";
    a.flash = {"3.18", "4.02", "6.01", "8.05.63", "2.1.4", "1.0.9", "1.2.7", "3.1.2"};
    const vx_adapter_type* t = vx_adapter_lookup(device_id);
    for (unsigned f = 0; t && f < t->ports; ++f) {
        PciFunction& fn = a.functions.emplace_back();
        fn.pci_address = "0000:05:00." + std::to_string(f);
        fn.port.host_no = f;
        fn.port.wwpn = 0x2100001d5a000010ull + f;
        fn.port.wwnn = 0x2000001d5a000010ull + f;
    }
    return a;
}

struct Case {
    std::string name;
    Adapter adapter;
};
void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

// Every device id of the table, plus the HP board and the maker's HP-like id.
std::vector<Case> all_cases() {
    std::vector<Case> out;
    for (const vx_adapter_type& t : vx_adapter_table) {
        char name[32];
        std::snprintf(name, sizeof name, "%s_%04x", vx_family_name(t.family), t.device_id);
        out.push_back({name, make_adapter(t.device_id)});
    }
    out.push_back({"Hp_1011", make_adapter(0x1011, VX_HP_PCI_VENDOR_ID, vx_hp_subsystem_ids[0])});
    out.push_back({"SwiftSpecial_1052", make_adapter(0x1052, VX_PCI_VENDOR_ID, VX_SPECIAL_SUBSYSTEM_ID)});
    return out;
}

vx_family family_of(const Adapter& a) {
    const vx_family f = vx_adapter_family(a.device_id);
    return f == vx_family::Finch && vx_is_hp_variant(a.subsystem_vendor_id, a.subsystem_device_id) ? vx_family::Hp
                                                                                                  : f;
}

struct Image {
    size_t at, len;
    uint8_t code_type;
    uint16_t revision;
    bool last;
};

// Walks the boot images from offset 0 the way an option-ROM reader does.
std::vector<Image> walk_images(const Bytes& f, const Adapter& a) {
    std::vector<Image> out;
    size_t pos = 0;
    if (has_text(f, 0, "QFIM")) {
        uint16_t len;
        std::memcpy(&len, f.data() + 6, 2);  // host order
        pos = len;
    }
    while (pos + 26 < f.size() && out.size() < 10) {
        if (f[pos] != 0x55 || f[pos + 1] != 0xAA) {
            ADD_FAILURE() << "no ROM signature at " << pos;
            break;
        }
        const size_t pcir = pos + le16(f, pos + 24);
        EXPECT_TRUE(has_text(f, pcir, "PCIR")) << pos;
        EXPECT_EQ(le16(f, pcir + 4), a.vendor_id);
        EXPECT_EQ(le16(f, pcir + 6), a.device_id);
        Image im{pos, size_t(le16(f, pcir + 16)) * 512, f[pcir + 20], le16(f, pcir + 18), (f[pcir + 21] & 0x80) != 0};
        EXPECT_EQ(im.len, size_t(f[pos + 2]) * 512) << "byte 2 and ImageLength disagree at " << pos;
        EXPECT_EQ(sum8(f, pos, pos + im.len), 0) << "image sum at " << pos;
        EXPECT_EQ(f[pos + im.len - 2], 0) << "checksum recompute would differ at " << pos;
        out.push_back(im);
        pos += im.len;
        if (im.last || im.len == 0)
            break;
    }
    return out;
}

std::optional<uint32_t> expected_flt_address(vx_family f) {
    switch (f) {
    case vx_family::Kite: return 0x141000;
    case vx_family::Lark: return 0x361000;
    case vx_family::Wren: case vx_family::Ibis: case vx_family::Plover: case vx_family::Tern: case vx_family::Crane:
        return 0x3F1000;
    default: return std::nullopt;
    }
}

struct Entry {
    uint32_t word, size, beg, end;
};

// The FLT at `at`, or nothing for a family without one.
std::vector<Entry> read_flt(const Bytes& f, std::optional<uint32_t> at) {
    std::vector<Entry> out;
    if (!at)
        return out;
    EXPECT_EQ(le16(f, *at), 1) << "FLT version";
    const uint16_t len = le16(f, *at + 2);
    EXPECT_EQ(len % 16, 0);
    EXPECT_EQ(sum16(f, *at, (len + 8u) / 2), 0) << "FLT checksum";
    for (size_t e = *at + 8; e < *at + 8 + len; e += 16)
        out.push_back({le32(f, e), le32(f, e + 4), le32(f, e + 8), le32(f, e + 12)});
    return out;
}

const Entry* find(const std::vector<Entry>& t, uint8_t code) {
    for (const Entry& e : t)
        if ((e.word & 0xFF) == code)
            return &e;
    return nullptr;
}

class sim_model_flash : public testing::TestWithParam<Case> {
protected:
    const Adapter& a = GetParam().adapter;
    const vx_family fam = family_of(a);
    const bool has_flt = vx_adapter_has(a.device_id, VX_MARK_FLT);
    const Bytes f = build_flash(a);
    const std::vector<Entry> flt = read_flt(f, expected_flt_address(fam));
};

TEST_P(sim_model_flash, boot_images_and_layout) {
    ASSERT_EQ(f.size(), vx_adapter_lookup(a.device_id)->flash_size);
    EXPECT_EQ(has_text(f, 0, "QFIM"), fam == vx_family::Lark);
    const std::vector<Image> images = walk_images(f, a);
    ASSERT_EQ(images.size(), 3u);
    const std::pair<uint8_t, uint16_t> expect[] = {{0, 0x0312}, {1, 0x0402}, {3, 0x0601}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(images[i].code_type, expect[i].first);
        EXPECT_EQ(images[i].revision, expect[i].second);
        EXPECT_EQ(images[i].last, i == 2);
    }
    // BIOS: SVID marker and the settings block the update path preserves.
    const Image& bios = images[0];
    EXPECT_TRUE(has_text(f, bios.at + 28, "SVID"));
    EXPECT_EQ(le16(f, bios.at + 32), a.subsystem_vendor_id);
    size_t meisp = bios.at;
    while (meisp <= 0x1FFF9 && !has_text(f, meisp, "MEISP "))
        ++meisp;
    EXPECT_LE(meisp + 2 + (fam == vx_family::Swift ? 512 : 256), bios.at + bios.len) << "settings block outside BIOS";
    EXPECT_TRUE(fam != vx_family::Kite || slice(f, 0, 0x40000) == slice(f, 0x40000, 0x40000)) << "boot code twice";

    const size_t past = images.back().at + images.back().len;
    const std::optional<uint32_t> at = expected_flt_address(fam);
    ASSERT_EQ(at.has_value(), has_flt);
    EXPECT_EQ(flt_address(a), at);
    EXPECT_EQ(has_text(f, past, "QFLT"), has_flt);
    if (!at)
        return;
    // Locator just past the last boot image; flash description one page below the FLT.
    EXPECT_EQ(sum16(f, past, 8), 0) << "locator checksum";
    EXPECT_EQ(uint32_t(le16(f, past + 6)) << 16 | le16(f, past + 4), *at);
    const uint32_t fdt = *at - 0x1000;
    EXPECT_TRUE(has_text(f, fdt, "VXID"));
    EXPECT_EQ(sum16(f, fdt, 64), 0) << "FDT checksum";
    const uint32_t block = le32(f, fdt + 40);
    EXPECT_TRUE(block >= 0x1000 && (block & (block - 1)) == 0) << block;

    const std::vector<Region> regions = flash_regions(a);
    ASSERT_EQ(flt.size(), regions.size());
    bool read_only = false, reset = false;
    const uint32_t flt_len = 8 + le16(f, *at + 2);
    for (size_t i = 0; i < flt.size(); ++i) {
        const Entry& e = flt[i];
        EXPECT_TRUE(e.word == regions[i].word && e.size == regions[i].size && e.beg == regions[i].beg &&
                    e.end == regions[i].end)
            << "entry " << i;
        EXPECT_EQ(e.end, e.beg + e.size - 1);
        EXPECT_LE(e.end, f.size() - 1);
        read_only |= (e.word & 0x10000) != 0;
        reset |= (e.word & 0x60000) != 0;
        auto overlaps = [&](uint32_t b, uint32_t n) { return e.beg < b + n && b < e.beg + e.size; };
        EXPECT_FALSE(overlaps(fdt, 128) || overlaps(*at, flt_len)) << std::hex << e.word;
    }
    EXPECT_TRUE(read_only && reset);
    for (uint8_t code : {0x07, 0x01, 0x14, 0x16})  // the family's own regions are checked with their images
        EXPECT_NE(find(flt, code), nullptr) << std::hex << int(code);
    for (uint8_t code : {0x66, 0x67, 0x9E, 0x9F, 0xD1, 0xD3, 0xF0, 0xF1})
        EXPECT_TRUE(fam != vx_family::Crane || find(flt, code)) << std::hex << int(code);
}

// Kite keeps its VPD and NVRAM regions inside the 0x08 region; the library's
// fixed table is compared with the simulator's elsewhere.
TEST(sim_model_flash_kite, vpd_and_nvram_regions_sit_inside_region_8) {
    const std::vector<Entry> t = read_flt(build_flash(make_adapter(0x2010)), 0x141000);
    ASSERT_NE(find(t, 0x08), nullptr);
    ASSERT_NE(find(t, 0x14), nullptr);
    ASSERT_NE(find(t, 0x17), nullptr);
    EXPECT_EQ(find(t, 0x08)->beg, 0x120000u);
    EXPECT_EQ(find(t, 0x14)->beg, 0x120000u);
    EXPECT_EQ(find(t, 0x17)->beg, 0x120600u);
    EXPECT_EQ(find(t, 0x17)->size, 0x200u);
}

TEST_P(sim_model_flash, firmware_headers) {
    std::map<uint32_t, std::pair<std::string, std::vector<uint32_t>>> want;  // offset -> tag, version
    const std::vector<Region> regions = flash_regions(a);
    auto region = [&](uint8_t code) -> std::optional<uint32_t> {
        for (const Region& r : regions)
            if ((r.word & 0xFF) == code)
                return r.beg;
        return std::nullopt;
    };
    if (region(0x01))
        want[*region(0x01)] = {"VXFW", {8, 5, 63}};
    else if (fam == vx_family::Robin || fam == vx_family::Egret)
        want[0x80000] = {"VXFW", {8, 5, 63}};
    if (fam == vx_family::Lark) {
        want[*region(0x40)] = {"VXMP", {2, 1, 4}};
        want[*region(0x45)] = {"VXED", {1, 2, 7}};
        want[*region(0x2E)] = {"VXNB", {3, 1, 2}};
    }
    if (fam == vx_family::Crane) {
        want[*region(0x02)] = {"VXMP", {2, 1, 4}};
        want[*region(0x09)] = {"VXPE", {1, 0, 9}};
    }
    EXPECT_EQ(want.empty(), !has_flt && fam != vx_family::Swift && fam != vx_family::Robin && fam != vx_family::Egret);
    for (const auto& [at, tv] : want) {
        EXPECT_TRUE(has_text(f, at, tv.first.c_str())) << tv.first;
        EXPECT_EQ((std::vector<uint32_t>{le32(f, at + 4), le32(f, at + 8), le32(f, at + 12)}), tv.second) << tv.first;
        const uint32_t len = le32(f, at + 16);
        ASSERT_TRUE(len >= 32 && len % 4 == 0 && at + len <= f.size()) << tv.first;
        uint32_t sum = 0;
        for (uint32_t i = 0; i < len; i += 4)
            sum += le32(f, at + i);
        EXPECT_EQ(sum, 0u) << tv.first;
    }
}

// NVRAM region per family and PCI function, as the library picks it.
uint8_t nvram_code(vx_family f, size_t fn) {
    switch (f) {
    case vx_family::Tern: case vx_family::Ibis: return fn % 2 ? 0xAC : 0xAA;
    case vx_family::Crane: return fn < 4 ? uint8_t(std::array<uint8_t, 4>{0x15, 0x17, 0xD5, 0xD7}[fn]) : 0x15;
    default: return fn % 2 ? 0x17 : 0x15;
    }
}

struct Item {
    std::string key;  // "" for the identifier string
    size_t at, len;   // data
};

// Walks a VPD image: the identifier string and keyword items; whether the
// "RV" byte makes the sum from the start through it 0, and whether an end
// tag closes it.
std::vector<Item> walk_vpd(const Bytes& v, bool one_byte_ident, bool& rv_ok, bool& end_tag) {
    std::vector<Item> out;
    rv_ok = end_tag = false;
    for (size_t pos = 0; pos + 3 <= v.size() && !(end_tag = v[pos] == 0x78);) {
        if (v[pos] == 0x82) {
            const size_t len = one_byte_ident ? v[pos + 1] : le16(v, pos + 1), data = pos + (one_byte_ident ? 2 : 3);
            out.push_back({"", data, len});
            pos = data + len;
        } else if (v[pos] == 0x90 || v[pos] == 0x91) {
            pos += 3;
        } else {
            out.push_back({std::string(v.begin() + long(pos), v.begin() + long(pos) + 2), pos + 3, v[pos + 2]});
            if (out.back().key == "RV")
                rv_ok = sum8(v, 0, pos + 4) == 0;
            pos += 3 + v[pos + 2];
        }
    }
    return out;
}

std::string field(const Bytes& v, const std::vector<Item>& items, const std::string& key) {
    for (const Item& i : items)
        if (i.key == key) {
            std::string s(v.begin() + long(i.at), v.begin() + long(i.at + i.len));
            return s.substr(0, s.find('\0'));
        }
    return "<absent>";
}

TEST_P(sim_model_flash, nvram_and_vpd_images) {
    const bool wide = has_flt || fam == vx_family::Swift;
    const bool hp = vx_is_hp_variant(a.subsystem_vendor_id, a.subsystem_device_id);
    const bool old_vpd = vx_adapter_has(a.device_id, VX_MARK_OLD_VPD_IMAGE);
    for (const PciFunction& pf : a.functions) {
        const size_t fn = pci_function_number(pf.pci_address);
        SCOPED_TRACE(fn);
        const Bytes n = build_nvram(a, fn);
        uint64_t wwpn = 0, wwnn = 0;
        const size_t names = wide ? 20 : 18, nodes = wide ? 28 : 30;  // older layout: words 9-12 and 15-18
        ASSERT_EQ(n.size(), wide ? 512u : 256u);
        for (int i = 0; i < 8; ++i) {
            wwpn = wwpn << 8 | n[names + i];
            wwnn = wwnn << 8 | n[nodes + i];
        }
        EXPECT_EQ(wwpn, pf.port.wwpn);
        EXPECT_EQ(wwnn, pf.port.wwnn);
        if (wide) {
            EXPECT_TRUE(has_text(n, 0, "VXNV"));
            EXPECT_EQ(le16(n, 4), 1) << "nvram_version";
            uint32_t sum = 0;
            for (size_t i = 0; i < 128; ++i)
                sum += le32(n, 4 * i);
            EXPECT_EQ(sum, 0u);
            EXPECT_EQ(le16(n, 504), a.subsystem_vendor_id);
            EXPECT_EQ(le16(n, 506), a.subsystem_device_id);
        } else {
            EXPECT_EQ(sum8(n, 0, 256), 0) << "older layout: all bytes sum to 0";
        }
        const std::optional<FlashRange> nr = nvram_in_flash(a, fn);
        ASSERT_EQ(nr.has_value(), has_flt);
        if (nr) {
            ASSERT_NE(find(flt, nvram_code(fam, fn)), nullptr);
            EXPECT_EQ(nr->offset, find(flt, nvram_code(fam, fn))->beg);
            EXPECT_EQ(nr->size, n.size());
            EXPECT_EQ(slice(f, nr->offset, n.size()), n);
        }

        const Bytes v = build_vpd(a, fn);
        ASSERT_EQ(v.size(), fam == vx_family::Wren || fam == vx_family::Tern || fam == vx_family::Ibis ? 1024u : 512u);
        bool rv_ok, end_tag;
        const std::vector<Item> items = walk_vpd(v, hp, rv_ok, end_tag);
        EXPECT_TRUE(rv_ok && end_tag);
        ASSERT_FALSE(items.empty());
        EXPECT_TRUE(items[0].key.empty() && items[0].len >= 7 && has_text(v, items[0].at, "Varnex "))
            << "the identifier string first";
        const std::pair<const char*, std::string> fields[] = {
            {"SN", a.serial_number}, {"V1", " 6.01"}, {"V3", "8.05.63"}, {"V4", " 3.18"}, {"V5", " 4.02"}};
        for (const auto& [key, want] : fields)
            EXPECT_EQ(field(v, items, key), want) << key;
        for (const char* k : {"PN", "EC", "MN", "YA"})
            EXPECT_NE(field(v, items, k), "<absent>") << k;
        const std::optional<FlashRange> vr = vpd_in_flash(a, fn);
        ASSERT_EQ(vr.has_value(), has_flt || old_vpd);
        if (old_vpd) {
            EXPECT_EQ(vr->offset, 0x1FE00u);
        } else if (vr && fn < 2) {
            ASSERT_NE(find(flt, fn % 2 ? 0x16 : 0x14), nullptr);
            EXPECT_EQ(vr->offset, find(flt, fn % 2 ? 0x16 : 0x14)->beg);
        }
        if (vr) {
            EXPECT_EQ(slice(f, vr->offset, v.size()), v);
        }
    }
}

std::string case_name(const testing::TestParamInfo<Case>& i) { return i.param.name; }

INSTANTIATE_TEST_SUITE_P(families, sim_model_flash, testing::ValuesIn(all_cases()), case_name);

TEST(sim_model_flash_vpd, contents_a_scenario_asks_for) {
    const struct {
        VpdContent content;
        bool rv_ok, end_tag;
        const char* v4;  // "<absent>" when cut before it
    } rows[] = {
        {VpdContent::Valid, true, true, " 3.18"},
        {VpdContent::BadChecksum, false, true, " 3.18"},
        {VpdContent::Truncated, false, false, "<absent>"},
    };
    for (const auto& r : rows) {
        Adapter a = make_adapter(0x1030);
        a.serial_number = "VXH00001030";
        a.vpd = r.content;
        const Bytes v = build_vpd(a, 0);
        bool rv_ok = false, end_tag = false;
        const std::vector<Item> items = walk_vpd(v, false, rv_ok, end_tag);
        EXPECT_EQ(rv_ok, r.rv_ok) << int(r.content);
        EXPECT_EQ(end_tag, r.end_tag) << int(r.content);
        EXPECT_EQ(field(v, items, "SN"), "VXH00001030") << int(r.content);
        EXPECT_EQ(field(v, items, "V4"), r.v4) << int(r.content);
        if (r.content == VpdContent::Truncated) {
            EXPECT_EQ(v.back(), 0xFF);
        }
    }
}

TEST(sim_model_flash_nvram, the_wide_layout_names_the_adapter_class_where_the_word_view_reads_it) {
    for (const uint16_t id : {0x1052, 0x2050}) {
        Adapter a = make_adapter(id);
        a.subsystem_device_id = 0x0101;
        const Bytes n = build_nvram(a, 0);
        EXPECT_EQ(le16(n, 252), 0x0101) << std::hex << id;
    }
}

TEST(sim_model_flash_versions, three_digit_majors_hp_boards_and_unknown_devices) {
    Adapter a = make_adapter(0x2050);
    a.flash.bios = "100.05";
    const std::vector<Image> images = walk_images(build_flash(a), a);
    ASSERT_FALSE(images.empty());
    EXPECT_EQ(images[0].revision, 0x6405);
    bool rv_ok, end_tag;
    const Bytes v = build_vpd(a, 0);
    EXPECT_EQ(field(v, walk_vpd(v, false, rv_ok, end_tag), "V4"), "100.05");
    EXPECT_TRUE(rv_ok);
    EXPECT_EQ(code_revision("3.256"), 0);
    EXPECT_EQ(code_revision("3"), 0);
    // The HP board is told apart by its subsystem ids.
    EXPECT_EQ(flash_regions(make_adapter(0x1011, VX_HP_PCI_VENDOR_ID, vx_hp_subsystem_ids[0]))[1].word, 0x03u);
    EXPECT_EQ(flash_regions(make_adapter(0x1011))[1].word, 0x02u);

    const Adapter unknown = make_adapter(0x9999);
    EXPECT_TRUE(build_flash(unknown).empty() && build_nvram(unknown, 0).empty() && !nvram_in_flash(unknown, 0));
}

}  // namespace
