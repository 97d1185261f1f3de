// vxcli flash layout / read / write: the adapter's flash regions, a region
// or byte range into a file, and a file into a region (checked, confirmed,
// read back).
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <fstream>
#include <iterator>
#include <optional>

#include "commands.h"
#include "dump.h"
#include "romimage.h"
#include "terminal.h"

namespace vxcli {

namespace {

constexpr uint32_t WHOLE_IMAGE_MIN = 0x20000;  // the library's whole-image calls move at least this

struct Region {
    uint32_t code;
    uint32_t size;
};

struct Layout {
    uint32_t flash_size = 0;  // 0: the layout comes from the flash's own table
    std::vector<Region> regions;
    const Region* find(uint32_t code) const {
        for (const Region& r : regions)
            if (r.code == code)
                return &r;
        return nullptr;
    }
};

std::optional<Layout> layout_of(Context& ctx, const SelectedPort& port) {
    std::vector<uint8_t> raw(offsetof(SDM_OPT_ROM_LAYOUT, Region) + 255 * sizeof(SDM_OPT_ROM_REGION));
    auto* l = reinterpret_cast<SDM_OPT_ROM_LAYOUT*>(raw.data());
    l->NoOfRegions = 255;
    if (const uint32_t st = SDGetOptionRomLayout(port.handle, 0, l); st != 0) {
        ctx.fail(EXIT_PARTIAL, fmt::format("port {}: flash layout failed: {}", port.instance, status_text(st)), st);
        return std::nullopt;
    }
    Layout out{l->Size, {}};
    for (uint32_t i = 0; i < l->NoOfRegions && i < 255; ++i) {
        SDM_OPT_ROM_REGION r;
        std::memcpy(&r, raw.data() + offsetof(SDM_OPT_ROM_LAYOUT, Region) + i * sizeof r, sizeof r);
        out.regions.push_back({r.Region, r.Size});
    }
    return out;
}

std::string hex(uint64_t v, int width = 2) { return fmt::format("{:#0{}x}", v, width + 2); }

// An option's number in C notation ("0x07", "7"): given or not, and whether it parsed.
struct Number {
    bool given = false;
    bool ok = true;
    uint32_t value = 0;
};

Number number(const std::string& text) {
    Number n;
    if (text.empty())
        return n;
    n.given = true;
    n.ok = false;
    try {
        size_t used = 0;
        const unsigned long v = std::stoul(text, &used, 0);
        if (used == text.size() && v <= 0xFFFFFFFFul) {
            n.value = static_cast<uint32_t>(v);
            n.ok = true;
        }
    } catch (const std::exception&) {
    }
    return n;
}

// Regions whose content is a chain of boot images (and the whole image).
bool boot_code(const Number& region) {
    if (!region.given)
        return true;
    const uint32_t c = region.value;
    return c == 0 || (c >= 0x02 && c <= 0x07) || c == 0x11 || c == 0xFF;
}

bool is_virtual(const SelectedPort& port) {
    DEVICENODEPROPERTY n{};
    return SDGetHbaDeviceNodeProperty(port.handle, &n) == 0 && n.InterfaceType == 3;
}

// One library transfer of `total` bytes with its progress on standard
// error; none under --json, whose callers are scripts reading one document.
template <typename Call>
uint32_t transfer(const Context& ctx, const char* label, uint64_t total, Call call) {
    std::optional<Progress> progress;
    if (!ctx.json_output())
        progress.emplace(label, total);
    const uint32_t st = call();
    if (st == 0 && progress)
        progress->update(total);
    return st;
}

// ---- layout ----

const std::vector<TableColumn>& layout_columns() {
    static const std::vector<TableColumn> columns = {
        {"REGION", "region", false, [](const json& r) { return hex(r["region"].get<uint32_t>()); }},
        {"SIZE", "size", true, [](const json& r) { return hex(r["size"].get<uint32_t>(), 1); }},
    };
    return columns;
}

void run_layout(Context& ctx) {
    for (const SelectedPort& port : ctx.ports()) {
        const std::optional<Layout> layout = layout_of(ctx, port);
        if (!layout)
            return;
        std::vector<json> rows;
        for (const Region& r : layout->regions)
            rows.push_back(json{{"region", r.code}, {"size", r.size}});
        ctx.doc().update(port_identity(port));
        ctx.doc()["flash_size"] = layout->flash_size ? json(layout->flash_size) : json();
        ctx.doc()["regions"] = rows;
        ctx.print(layout->flash_size ? fmt::format("Flash of {} bytes ({}), {} regions\n", layout->flash_size,
                                                   hex(layout->flash_size, 1), rows.size())
                                     : fmt::format("{} regions (from the flash's own layout table)\n", rows.size()));
        ctx.print_table(layout_columns(), rows);
    }
}

// ---- read ----

struct ReadArgs {
    std::string region, offset, size, output;
} read_args;

void read_options(CLI::App& app) {
    app.add_option("--region", read_args.region, "Read this region (code, e.g. 0x07)")->type_name("R");
    app.add_option("--offset", read_args.offset, "Read a byte range from this flash offset")->type_name("O");
    app.add_option("--size", read_args.size, "Bytes of the range (with --offset)")->type_name("S");
    app.add_option("-o,--output", read_args.output, "Write the bytes to FILE ('-': standard output)")
        ->type_name("FILE")
        ->required();
}

void run_read(Context& ctx) {
    const SelectedPort& port = ctx.ports().front();
    const Number region = number(read_args.region), offset = number(read_args.offset), size = number(read_args.size);
    if (!region.ok || !offset.ok || !size.ok || (region.given && offset.given) || offset.given != size.given ||
        (size.given && size.value == 0))
        return ctx.fail(EXIT_USAGE, "flash read: give --region R, or --offset O with --size S (numbers), or neither");
    if (ctx.json_output() && read_args.output == "-")
        return ctx.fail(EXIT_USAGE, "flash read: --json prints its document on standard output; give -o FILE");
    const std::optional<Layout> layout = layout_of(ctx, port);
    if (!layout)
        return;
    uint32_t bytes = 0;
    if (region.given) {
        const Region* r = layout->find(region.value);
        if (!r)
            return ctx.fail(EXIT_USAGE, fmt::format("port {} has no region {}; see 'vxcli flash layout {}'",
                                                    port.instance, hex(region.value), port.instance));
        bytes = r->size;
    } else if (offset.given) {
        bytes = size.value;
    } else if (layout->flash_size >= WHOLE_IMAGE_MIN) {
        bytes = layout->flash_size;
    } else {
        return ctx.fail(EXIT_USAGE, fmt::format("port {}: the flash size is not in its layout; give --region, or "
                                                "--offset and --size", port.instance));
    }
    std::vector<uint8_t> buf(bytes);
    const uint32_t st = transfer(ctx, "Reading", bytes, [&] {
        return region.given   ? SDGetOptionRomEx(port.handle, 0, buf.data(), bytes, region.value)
               : offset.given ? SDGetOptionRomOffset(port.handle, 0, buf.data(), bytes, offset.value)
                              : SDGetOptionRom(port.handle, 0, buf.data(), bytes);
    });
    if (st != 0)
        return ctx.fail(EXIT_PARTIAL, fmt::format("port {}: flash read failed: {}", port.instance, status_text(st)), st);
    if (const std::string err = write_output(read_args.output, buf.data(), buf.size()); !err.empty())
        return ctx.fail(EXIT_USAGE, fmt::format("cannot write {}: {}", read_args.output, err));
    ctx.doc().update(port_identity(port));
    ctx.doc()["region"] = region.given ? json(region.value) : json();
    ctx.doc()["offset"] = offset.given ? json(offset.value) : json();
    ctx.doc()["size"] = bytes;
    ctx.doc()["output"] = read_args.output;
    if (read_args.output != "-")
        ctx.print(fmt::format("Read {} bytes of port {}'s flash into {}\n", bytes, port.instance, read_args.output));
}

// ---- write ----

struct WriteArgs {
    std::string region, input;
    bool online = false, activate = false;
} write_args;

void write_options(CLI::App& app) {
    app.add_option("FILE", write_args.input, "The image to write")->required();
    app.add_option("--region", write_args.region, "Write this region (code, e.g. 0x07); default: the whole image")
        ->type_name("R");
    app.add_flag("--online", write_args.online,
                 "Update while the adapter stays online (newest family; needs --region): under the adapter's flash "
                 "update token");
    app.add_flag("--activate", write_args.activate, "With --online: start the new firmware without a reboot");
}

// The online update's token, ended on every way out once taken.
class UpdateToken {
public:
    UpdateToken(Context& ctx, const SelectedPort& port) : ctx_(ctx), port_(port) {}
    ~UpdateToken() { end(); }
    UpdateToken(const UpdateToken&) = delete;
    UpdateToken& operator=(const UpdateToken&) = delete;

    // Takes the token; false (the failure recorded) when another process holds it or the board has none.
    bool take() {
        const uint32_t st = SDStartFlashUpdate(port_.handle, 0, &token_);
        if (st == 0) {
            held_ = true;
            return true;
        }
        if (st == SDM_STATUS_FLASH_TOKEN_HELD) {
            SD_UINT32 holder = 0, left = 0;
            const std::string who = SDGetFlashUpdateTokenHolder(port_.handle, 0, &holder, &left) == 0
                                        ? fmt::format("process {} holds it for {} more seconds", holder, left)
                                        : std::string("another process holds it");
            ctx_.fail(EXIT_PARTIAL,
                      fmt::format("port {}: another flash update is running: {}", port_.instance, who), st);
        } else if (st == SDM_STATUS_NOT_SUPPORTED) {
            ctx_.fail(EXIT_USAGE,
                      fmt::format("port {}: online updates need a physical port of a Crane board", port_.instance), st);
        } else {
            ctx_.fail(EXIT_PARTIAL, fmt::format("port {}: no flash update token: {}", port_.instance, status_text(st)),
                      st);
        }
        return false;
    }
    // Ends the update; 0 or the status of the end.
    uint32_t end() {
        if (!held_)
            return 0;
        held_ = false;
        return SDEndFlashUpdate(port_.handle, 0, token_);
    }
    SD_UINT32 token() const { return token_; }

private:
    Context& ctx_;
    const SelectedPort& port_;
    SD_UINT32 token_ = 0;
    bool held_ = false;
};

// Why the library refused, in the words of the refusal.
std::string refusal(uint32_t st) {
    switch (st) {
    case SDM_STATUS_NOT_SUPPORTED:
        return "the adapter refuses this update (a read-only region, or a board that takes no whole-image or "
               "region updates)";
    case SDM_STATUS_IMAGE_EXCEEDS_REGION: return "the image is larger than the region";
    case SDM_STATUS_INVALID_PARAMETER: return "the image or region was refused as invalid";
    case SDM_STATUS_INVALID_REGION: return "the region cannot be written";
    default: return status_text(st);
    }
}

void run_write(Context& ctx) {
    const SelectedPort& port = ctx.ports().front();
    const Number region = number(write_args.region);
    if (!region.ok)
        return ctx.fail(EXIT_USAGE, "flash write: --region takes a number (e.g. 0x07)");
    if (write_args.online && !region.given)
        return ctx.fail(EXIT_USAGE, "flash write: --online writes one region at a time: give --region");
    if (write_args.activate && !write_args.online)
        return ctx.fail(EXIT_USAGE, "flash write: --activate goes with --online");
    std::ifstream in(write_args.input, std::ios::binary);
    const std::vector<uint8_t> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.good() && !in.eof())
        return ctx.fail(EXIT_USAGE, fmt::format("cannot read {}", write_args.input));
    if (image.empty() || image.size() > 0xFFFFFFFFu)
        return ctx.fail(EXIT_USAGE, fmt::format("{}: no image in the file", write_args.input));
    const uint32_t size = static_cast<uint32_t>(image.size());

    // Every refusal comes before anything is written.
    if (is_virtual(port))
        return ctx.fail(EXIT_USAGE, fmt::format("port {} is a virtual port: write the flash through its physical "
                                                "port", port.instance));
    const std::optional<Layout> layout = layout_of(ctx, port);
    if (!layout)
        return;
    uint32_t room = layout->flash_size;
    if (region.given) {
        const Region* r = layout->find(region.value);
        if (!r)
            return ctx.fail(EXIT_USAGE, fmt::format("port {} has no region {}; see 'vxcli flash layout {}'",
                                                    port.instance, hex(region.value), port.instance));
        room = r->size;
    } else if (size < WHOLE_IMAGE_MIN) {
        return ctx.fail(EXIT_USAGE, fmt::format("image refused: a whole image has at least {} bytes, {} has {}",
                                                WHOLE_IMAGE_MIN, write_args.input, size));
    }
    if (room && size > room)
        return ctx.fail(EXIT_USAGE, fmt::format("image refused: {} bytes do not fit the {} bytes of the region", size,
                                                room));
    if (boot_code(region)) {
        if (const std::string why = rom_images(image.data(), image.size(), nullptr); !why.empty())
            return ctx.fail(EXIT_USAGE, fmt::format("image refused: {}", why));
    }
    const std::string where = region.given ? fmt::format("region {}", hex(region.value)) : std::string("the whole image");
    if (!confirmed(ctx, fmt::format("Write {} bytes to {} of port {}{}?", size, where, port.instance,
                                    write_args.online ? " while it stays online" : "")))
        return;

    UpdateToken token(ctx, port);
    if (write_args.online && !token.take())
        return;
    std::vector<uint8_t> data = image;  // the library may change its buffer (a second copy of boot code)
    uint32_t st = transfer(ctx, "Writing", size, [&] {
        if (write_args.online)
            return SDUpdateOptionRomEx2(port.handle, 0, data.data(), size, region.value);
        return region.given ? SDUpdateOptionRomEx(port.handle, 0, data.data(), size, region.value)
                            : SDUpdateOptionRom(port.handle, 0, data.data(), size);
    });
    if (st != 0)
        return ctx.fail(EXIT_PARTIAL, fmt::format("port {}: flash write failed: {}", port.instance, refusal(st)), st);

    std::vector<uint8_t> back(size);
    st = transfer(ctx, "Verifying", size, [&] {
        return region.given ? SDGetOptionRomEx(port.handle, 0, back.data(), size, region.value)
                            : SDGetOptionRom(port.handle, 0, back.data(), size);
    });
    if (st != 0)
        return ctx.fail(EXIT_PARTIAL, fmt::format("port {}: read-back failed: {}", port.instance, status_text(st)), st);
    const bool same = back == image;
    if (!same && !differs_only_in_kept_bytes(image.data(), back.data(), size)) {
        const size_t at = size_t(std::mismatch(image.begin(), image.end(), back.begin()).first - image.begin());
        return ctx.fail(EXIT_PARTIAL, fmt::format("port {}: verify failed: the flash differs from {} at byte {}",
                                                  port.instance, write_args.input, hex(at, 1)));
    }
    ctx.doc().update(port_identity(port));
    ctx.doc()["region"] = region.given ? json(region.value) : json();
    ctx.doc()["size"] = size;
    ctx.doc()["input"] = write_args.input;
    ctx.doc()["verified"] = true;
    ctx.doc()["adapter_settings_kept"] = !same;
    ctx.doc()["online"] = write_args.online;
    ctx.print(fmt::format("Wrote {} bytes to {} of port {}; read back and verified{}\n", size, where, port.instance,
                          same ? "" : " (the adapter's own settings were kept)"));
    if (!write_args.online)
        return;
    if (const uint32_t end = token.end(); end != 0)
        return ctx.fail(EXIT_PARTIAL, fmt::format("port {}: ending the flash update failed: {}", port.instance,
                                                  status_text(end)), end);
    ctx.doc()["activated"] = false;
    if (!write_args.activate) {
        ctx.print(fmt::format("The new firmware starts at the next reset; 'vxcli flash write --online --activate' "
                              "starts it without one\n"));
        return;
    }
    if (const uint32_t act = SDOnlineActivateFlashUpdate(port.handle, 0); act != 0)
        return ctx.fail(EXIT_PARTIAL, fmt::format("port {}: online activation failed: {}", port.instance,
                                                  act == SDM_STATUS_REGION_RESET_FAILED
                                                      ? "the new firmware cannot start online (or its reset failed)"
                                                      : status_text(act)), act);
    ctx.doc()["activated"] = true;
    ctx.print(fmt::format("Activated: the new firmware runs on every port of the board\n"));
}

}  // namespace

Command flash_layout_command() {
    return {"flash layout", "PORT", "List the regions of a port's flash",
            "Lists the regions of the adapter's flash (option ROM): each region's code and size, and the flash "
            "size when the layout is a fixed table.",
            PortArg::One, &layout_columns(), false, nullptr, run_layout};
}

Command flash_read_command() {
    return {"flash read", "PORT [--region R | --offset O --size S] -o FILE", "Read a port's flash into a file",
            "Reads the whole image (the flash of boards with a fixed layout), one region, or a byte range of the "
            "adapter's flash into FILE; the file is replaced only once complete.",
            PortArg::One, nullptr, false, read_options, run_read};
}

Command flash_write_command() {
    return {"flash write", "PORT [--region R [--online [--activate]]] FILE", "Write an image into a port's flash",
            "Writes FILE into one region, or as the whole image, after checking it: the region must exist and hold "
            "it, boot code must be a sound chain of PCI expansion-ROM images (0x55 0xAA, PCIR, lengths inside the "
            "file, a last image), and virtual ports are refused. Asks before writing unless --yes is given. The "
            "adapter's own BIOS settings and subsystem vendor are kept across a boot-code update; the flash is "
            "read back and compared afterwards. With --online (Crane boards) the region is written while the "
            "adapter stays online, under the adapter's flash update token, so that no other process updates it at "
            "the same time (when one does, its process id and the seconds its token has left are printed); "
            "--activate then starts the new firmware on every port of the board without a reboot.",
            PortArg::One, nullptr, true, write_options, run_write};
}

}  // namespace vxcli
