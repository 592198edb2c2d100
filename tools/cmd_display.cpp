// tandro display and tandro flash: the display module behind the reader, and programming the reader's firmware
// in its boot loader.
//
//   tandro display show PICTURE | text TEXT | time HH:MM | gallery save N PICTURE | gallery show N | clear
//   tandro flash IMAGE
// Both take their words through their option tables (tools/options.h), which also make their --help.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <unistd.h>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

using tandro::Args;
using tandro::Options;

constexpr size_t kTextMax = 249;                // 250 characters and more wrap the module's length byte
constexpr size_t kImageMax = 16u * 1024 * 1024; // a firmware image larger than this is not one

int report_failure(const Options &opt, const char *command, const std::string &what, ZEL_STATUS st)
{
    std::fprintf(stderr, "tandro %s: %s: %s\n", command, what.c_str(), ZEL_Status2String(st));
    if (opt.json)
        std::printf("{\"error\": %s, \"status\": %u}\n",
                    tandro::json_string(what + ": " + ZEL_Status2String(st)).c_str(), st);
    return 1;
}

int report_done(const Options &opt, const std::string &what)
{
    if (opt.json)
        std::printf("{\"done\": %s}\n", tandro::json_string(what).c_str());
    else
        std::printf("%s\n", what.c_str());
    return 0;
}

bool read_whole(const std::string &path, std::vector<uint8_t> &out, size_t max)
{
    std::FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return false;
    uint8_t buf[4096];
    size_t n = 0;
    bool ok = true;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
        if (out.size() + n > max) {
            ok = false;
            break;
        }
        out.insert(out.end(), buf, buf + n);
    }
    ok = ok && !std::ferror(f);
    std::fclose(f);
    return ok;
}

// A picture argument: a PNG, JPEG or BMP file by name, or a raw bitmap file of exactly 1,024 bytes. The
// library knows JPEG files by the ending ".jpg", so a ".jpeg" file goes to it under a ".jpg" link in a
// temporary folder of its own, removed with the argument.
struct Picture {
    std::string name;
    std::vector<uint8_t> bitmap;
    std::string link_dir;
    Picture() = default;
    Picture(const Picture &) = delete;
    Picture &operator=(const Picture &) = delete;
    ~Picture()
    {
        if (link_dir.empty())
            return;
        ::unlink(name.c_str());
        ::rmdir(link_dir.c_str());
    }
    const void *arg() const { return bitmap.empty() ? static_cast<const void *>(name.c_str()) : bitmap.data(); }
};

bool ends_with(const std::string &text, const char *ending)
{
    const size_t n = std::strlen(ending);
    return text.size() > n && text.compare(text.size() - n, n, ending) == 0;
}

// The .jpeg file under a .jpg name: a link to its absolute path in a new folder of the temporary directory.
// A file that is not there makes a link to nothing, which the library refuses as it refuses a missing .jpg.
bool jpeg_link(const std::string &text, Picture &p, std::string &why)
{
    std::string target = text;
    if (text.front() != '/') {
        char *cwd = ::getcwd(nullptr, 0);
        if (!cwd) {
            why = "the current folder cannot be named";
            return false;
        }
        target = std::string(cwd) + "/" + text;
        std::free(cwd);
    }
    const char *tmp = std::getenv("TMPDIR");
    std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/tandro-picture-XXXXXX";
    if (!::mkdtemp(dir.data())) {
        why = "no temporary folder for the .jpeg picture";
        return false;
    }
    p.link_dir = dir;
    p.name = dir + "/picture.jpg";
    if (p.name.size() >= 1024) {
        why = "the temporary folder's name is too long";
        return false;
    }
    if (::symlink(target.c_str(), p.name.c_str()) != 0) {
        why = "no temporary link for the .jpeg picture";
        return false;
    }
    return true;
}

bool picture_arg(const std::string &text, Picture &p, std::string &why)
{
    const bool jpeg_long = ends_with(text, ".jpeg");
    if (jpeg_long || ends_with(text, ".jpg") || ends_with(text, ".png") || ends_with(text, ".bmp")) {
        if (text.size() >= 1024) {
            why = "the picture's name is too long";
            return false;
        }
        if (jpeg_long)
            return jpeg_link(text, p, why);
        p.name = text;
        return true;
    }
    if (!read_whole(text, p.bitmap, ZEL_DISPLAY_BITMAP_LEN + 1) || p.bitmap.size() != ZEL_DISPLAY_BITMAP_LEN) {
        why = "PICTURE is a .png, .jpg, .jpeg or .bmp file, or a raw bitmap file of 1024 bytes";
        return false;
    }
    return true;
}

const char *DISPLAY_USAGE = "show PICTURE | text TEXT | time HH:MM | gallery save N PICTURE | gallery show N | clear";

const tandro::OptionTable DISPLAY_TABLE = {
    {
        {"show PICTURE", "shows a picture: a .png, .jpg, .jpeg or .bmp file, or a raw bitmap file of 1024 bytes"},
        {"text TEXT", "prints text (at most 249 characters)"},
        {"time HH:MM", "shows the time"},
        {"gallery save N PICTURE", "keeps a picture at gallery index N (0 to 10)"},
        {"gallery show N", "shows gallery index N (0 to 16; 16 is the last picture sent)"},
        {"clear", "clears the display"},
    },
    {},
    "A picture larger than 128 x 64 pixels is refused; a smaller one sits in the top left corner. Pictures are "
    "black and white: grey below 128, or red, green and blue adding up to less than 384, is dark.",
};

int run_display(const Options &opt, const Args &all)
{
    const char *name = "display";
    tandro::Parsed parsed;
    if (!tandro::parse(name, DISPLAY_TABLE, all, parsed))
        return 2;
    const Args &a = parsed.words;
    // Check every argument before the reader is opened.
    std::function<ZEL_STATUS()> step;
    std::string what, done;
    Picture pic;
    std::string why;
    uint32_t n = 0, hh = 0, mm = 0;
    if (a.size() == 2 && a[0] == "show") {
        if (!picture_arg(a[1], pic, why))
            return tandro::usage_error(name, why);
        step = [&] { return Display_ShowBitmap(pic.arg(), 0, 0, 0); };
        what = "show", done = "picture shown";
    } else if (a.size() == 2 && a[0] == "text") {
        if (a[1].size() > kTextMax)
            return tandro::usage_error(name, "the text is longer than 249 characters, which the display cannot take");
        step = [&] { return Display_PrintText(a[1].c_str(), 0, 0, 0, 0, 0); };
        what = "text", done = "text shown";
    } else if (a.size() == 2 && a[0] == "time") {
        const size_t colon = a[1].find(':');
        if (colon == std::string::npos || !tandro::parse_u32(a[1].substr(0, colon), &hh) ||
            !tandro::parse_u32(a[1].substr(colon + 1), &mm) || hh > 23 || mm > 59)
            return tandro::usage_error(name, "time HH:MM, hours 0 to 23 and minutes 0 to 59");
        step = [&] { return Display_ShowTime(static_cast<uint8_t>(hh), static_cast<uint8_t>(mm)); };
        what = "time", done = "time shown";
    } else if (a.size() == 4 && a[0] == "gallery" && a[1] == "save") {
        if (!tandro::parse_u32(a[2], &n) || n > ZEL_DISPLAY_GALLERY_MAX)
            return tandro::usage_error(name, "gallery index 0 to 10");
        if (!picture_arg(a[3], pic, why))
            return tandro::usage_error(name, why);
        step = [&] { return Display_SaveBitmapToGallery(pic.arg(), static_cast<uint8_t>(n)); };
        what = "gallery save", done = "picture saved at " + a[2];
    } else if (a.size() == 3 && a[0] == "gallery" && a[1] == "show") {
        if (!tandro::parse_u32(a[2], &n) || n > ZEL_DISPLAY_LAST_UNSAVED)
            return tandro::usage_error(name, "gallery index 0 to 16");
        step = [&] { return Display_ShowBitmapFromGallery(static_cast<uint8_t>(n)); };
        what = "gallery show", done = "gallery " + a[2] + " shown";
    } else if (a.size() == 1 && a[0] == "clear") {
        step = [] { return Display_ClearImage(); };
        what = "clear", done = "display cleared";
    } else {
        return tandro::usage_error(name, "show, text, time, gallery save|show or clear (tandro display --help)");
    }
    tandro::ReaderSession session;
    if (!session.open(name, opt)) {
        if (opt.json)
            std::printf("{\"error\": \"no reader\", \"status\": null}\n");
        return 1;
    }
    tandro::GlobalReader global(session.hnd());
    const ZEL_STATUS st = step();
    return st ? report_failure(opt, name, what, st) : report_done(opt, done);
}

// ---- flash ----

const tandro::OptionTable FLASH_TABLE = {
    {
        {"IMAGE", "programs the reader's firmware from IMAGE (a binary image of at most 16 MiB)"},
    },
    {},
    "The reader enters its boot loader, takes the image in 128-byte packets and verifies it; restart the reader "
    "to run the new firmware. With --sim the simulated boot loader expects an image of IMAGE's size.",
};

void bar(const Options &opt, uint32_t sent, uint32_t total)
{
    if (opt.json)
        return;
    const uint32_t width = 40, full = total ? sent * width / total : width;
    std::string line(full, '=');
    line.resize(width, ' ');
    std::fprintf(stderr, "\rflash |%s| %3u%%", line.c_str(), total ? sent * 100 / total : 100);
    if (sent >= total)
        std::fputc('\n', stderr);
}

int run_flash(const Options &opt, const Args &all)
{
    const char *name = "flash";
    tandro::Parsed parsed;
    if (!tandro::parse(name, FLASH_TABLE, all, parsed))
        return 2;
    const Args &a = parsed.words;
    if (a.size() != 1)
        return tandro::usage_error(name, "IMAGE (tandro flash --help)");
    std::vector<uint8_t> image;
    if (!read_whole(a[0], image, kImageMax) || image.empty())
        return tandro::usage_error(name, "IMAGE must be a readable, non-empty file of at most 16 MiB");
    const uint32_t packets = static_cast<uint32_t>((image.size() + ZEL_PROG_PACKET_LEN - 1) / ZEL_PROG_PACKET_LEN);
    if (packets > 0x10000)
        return tandro::usage_error(name, "IMAGE is larger than 65536 packets");
    image.resize(static_cast<size_t>(packets) * ZEL_PROG_PACKET_LEN, 0xFF);
    tandro::ReaderSession session;
    if (!session.open(name, opt)) {
        if (opt.json)
            std::printf("{\"error\": \"no reader\", \"status\": null}\n");
        return 1;
    }
    if (session.sim())
        zsim_boot_loader(session.sim(), static_cast<uint32_t>(image.size()), 9, 9, 9);
    tandro::GlobalReader global(session.hnd());
    ZEL_STATUS st = BootReader();
    if (st)
        return report_failure(opt, name, "boot loader", st);
    uint8_t verified = 0;
    if ((st = ProgReader(nullptr, 0, 1, &verified)) != ZEL_OK)
        return report_failure(opt, name, "start", st);
    for (uint32_t p = 0; p < packets; ++p) {
        st = ProgReader(image.data() + static_cast<size_t>(p) * ZEL_PROG_PACKET_LEN, static_cast<uint16_t>(p), 0,
                        &verified);
        if (st != ZEL_OK) {
            if (!opt.json)
                std::fputc('\n', stderr);
            return report_failure(opt, name, "packet " + std::to_string(p), st);
        }
        bar(opt, p + 1, packets);
    }
    if (opt.json) {
        std::printf("{\"packets\": %u, \"verified\": %s}\n", packets, verified ? "true" : "false");
    } else {
        std::printf("%u packets sent, image %s\n", packets, verified ? "verified" : "not verified by the reader");
    }
    return verified ? 0 : 1;
}

const tandro::Registration display_cmd({"display", DISPLAY_USAGE, "pictures, text and the time on the display module",
                                        run_display, false, &DISPLAY_TABLE});
const tandro::Registration flash_cmd({"flash", "IMAGE", "programs the reader's firmware in its boot loader", run_flash,
                                      false, &FLASH_TABLE});

} // namespace
