// An in-memory firmware service for the tests: images by module kind and version, version and package lists,
// manifests and package names, a log of every request, and answers bent in the ways a real service fails.
#ifndef ZEL_TESTS_FW_SERVICE_H
#define ZEL_TESTS_FW_SERVICE_H

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "firmware/manager_internal.h"

namespace zeltest {

// How the next answers for one key go wrong.
enum class Bend {
    NONE,
    NULL_RESPONSE,
    ERROR_TEXT,
    TOKEN_TEXT,
    HTML,
    BAD_GATEWAY,
    WRONG_TYPE,
    EMPTY,
    OVERSIZED,
    ODD_HEX
};

class FwService {
public:
    FwService()
    {
        zel::fw::Service s{};
        s.ctx = this;
        s.get_firmware = [](void *c, const zel_fw_identity *id, const char *v, const char *t) {
            return static_cast<FwService *>(c)->answer(false, id, v, t);
        };
        s.get_display_firmware = [](void *c, const zel_fw_identity *id, const char *v, const char *t) {
            return static_cast<FwService *>(c)->answer(true, id, v, t);
        };
        s.get_configuration = [](void *c, const char *name) {
            auto *self = static_cast<FwService *>(c);
            std::lock_guard<std::mutex> lock(self->mu);
            self->log.push_back(std::string("configuration ") + (name ? name : "(list)"));
            if (!name)
                return zel::fw::make_response(ZEL_HTTP_TEXT, self->config_list.data(), self->config_list.size());
            auto it = self->configs.find(name);
            if (it == self->configs.end())
                return zel::fw::make_response(ZEL_HTTP_ERROR, "no such configuration", 21);
            return zel::fw::make_response(ZEL_HTTP_TEXT, it->second.data(), it->second.size());
        };
        s.get_package_name = [](void *c, uint8_t hw_type, const char *version) {
            auto *self = static_cast<FwService *>(c);
            std::lock_guard<std::mutex> lock(self->mu);
            self->log.push_back("package-name " + std::to_string(hw_type) + " " + (version ? version : ""));
            return self->package_name.empty()
                       ? nullptr
                       : zel::fw::make_response(ZEL_HTTP_TEXT, self->package_name.data(), self->package_name.size());
        };
        zel::fw::set_service(&s);
    }
    ~FwService() { zel::fw::set_service(nullptr); }
    FwService(const FwService &) = delete;
    FwService &operator=(const FwService &) = delete;

    // The image of a module kind ("main", "display") at a version.
    void image(const std::string &kind, const std::string &version, const std::string &bytes)
    {
        images[kind + " " + version] = bytes;
    }
    // The next `times` answers for an image key go wrong in the given way.
    void bend(const std::string &kind, const std::string &version, Bend how, int times = 1)
    {
        bends[kind + " " + version] = {how, times};
    }
    // Who asked for each image: "serial hw_type version".
    std::vector<std::string> image_askers()
    {
        std::lock_guard<std::mutex> lock(mu);
        return askers;
    }
    std::vector<std::string> requests()
    {
        std::lock_guard<std::mutex> lock(mu);
        return log;
    }
    size_t count(const std::string &request)
    {
        size_t n = 0;
        for (const std::string &r : requests())
            n += r == request;
        return n;
    }

    std::map<std::string, std::string> manifests; // by package
    std::string packages;                         // "package,comment" lines
    std::string package_name;                     // the answer for the installed package
    std::string config_list;
    std::map<std::string, std::string> configs;

private:
    zel_http_response *answer(bool display, const zel_fw_identity *id, const char *version, const char *token)
    {
        std::lock_guard<std::mutex> lock(mu);
        const std::string v = version ? version : "";
        switch (id ? id->ask : ZEL_FW_ASK_IMAGE) {
        case ZEL_FW_ASK_PACKAGES:
            log.push_back("packages");
            return zel::fw::make_response(ZEL_HTTP_TEXT, packages.data(), packages.size());
        case ZEL_FW_ASK_MANIFEST: {
            log.push_back("manifest " + v);
            auto it = manifests.find(v);
            return it == manifests.end() ? zel::fw::make_response(ZEL_HTTP_ERROR, "Error: no such package", 22)
                                         : zel::fw::make_response(ZEL_HTTP_TEXT, it->second.data(), it->second.size());
        }
        default: break;
        }
        const std::string key = std::string(display ? "display" : "main") + " " + v;
        log.push_back("image " + key + (token && token[0] ? " token" : ""));
        if (id)
            askers.push_back(std::string(id->serial) + " " + std::to_string(id->hw_type) + " " + v);
        auto b = bends.find(key);
        if (b != bends.end() && b->second.second > 0) {
            --b->second.second;
            return bent(b->second.first);
        }
        auto it = images.find(key);
        if (it == images.end())
            return zel::fw::make_response(ZEL_HTTP_ERROR, "Error: unknown version", 22);
        return zel::fw::make_response(ZEL_HTTP_FIRMWARE_BINARY, it->second.data(), it->second.size());
    }

    static zel_http_response *bent(Bend how)
    {
        static const std::string html = "<!DOCTYPE html><html><body>Not found</body></html>";
        static const std::string gateway = "<h1>502 Bad Gateway</h1>";
        switch (how) {
        case Bend::NULL_RESPONSE: return nullptr;
        case Bend::ERROR_TEXT: return zel::fw::make_response(ZEL_HTTP_ERROR, "Error: out of service", 21);
        case Bend::TOKEN_TEXT: return zel::fw::make_response(ZEL_HTTP_ERROR, "Token required for upgrade\n", 27);
        case Bend::HTML: return zel::fw::make_response(ZEL_HTTP_FIRMWARE_BINARY, html.data(), html.size());
        case Bend::BAD_GATEWAY: return zel::fw::make_response(ZEL_HTTP_FIRMWARE_BINARY, gateway.data(), gateway.size());
        case Bend::WRONG_TYPE: return zel::fw::make_response(ZEL_HTTP_TEXT, "00112233", 8);
        case Bend::EMPTY: return zel::fw::make_response(ZEL_HTTP_FIRMWARE_BINARY, nullptr, 0);
        case Bend::OVERSIZED: {
            const std::string big(ZEL_FW_IMAGE_MAX + 2, '0');
            return zel::fw::make_response(ZEL_HTTP_FIRMWARE_BINARY, big.data(), big.size());
        }
        case Bend::ODD_HEX: return zel::fw::make_response(ZEL_HTTP_FIRMWARE_BINARY, "0011223", 7);
        case Bend::NONE: break;
        }
        return nullptr;
    }

    std::mutex mu;
    std::vector<std::string> log;
    std::vector<std::string> askers;
    std::map<std::string, std::string> images;
    std::map<std::string, std::pair<Bend, int>> bends;
};

} // namespace zeltest

#endif
