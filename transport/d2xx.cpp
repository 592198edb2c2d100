// Loading the D2XX library by name and keeping its function table.
#include "transport/d2xx.h"

#include <dlfcn.h>

#include <mutex>

#include "core/internal.h"
#include "zel_port.h"

namespace {
zel::D2xxTable g_table{};
void *g_module = nullptr;
std::mutex g_table_mutex;

template <typename Fn> void resolve(void *module, const char *name, Fn &slot)
{
    slot = reinterpret_cast<Fn>(dlsym(module, name));
}
} // namespace

const zel::D2xxTable &zel::d2xx()
{
    return g_table;
}

void zel::d2xx_install(const D2xxTable &table)
{
    std::lock_guard<std::mutex> lock(g_table_mutex);
    g_table = table;
    g_module = nullptr;
}

void *zel::d2xx_module()
{
    return g_module;
}

extern "C" ZEL_API int LoadFTD2XXLibrary(const char *file_name)
{
    if (!file_name)
        return 0;
    void *module = dlopen(file_name, RTLD_NOW | RTLD_LOCAL);
    if (!module) {
        dp(7, "D2XX library \"%s\" not loaded: %s", file_name, dlerror());
        return 0;
    }
    zel::D2xxTable t{};
    resolve(module, "FT_Open", t.FT_Open);
    resolve(module, "FT_Close", t.FT_Close);
    resolve(module, "FT_Write", t.FT_Write);
    resolve(module, "FT_SetTimeouts", t.FT_SetTimeouts);
    resolve(module, "FT_Purge", t.FT_Purge);
    resolve(module, "FT_GetQueueStatus", t.FT_GetQueueStatus);
    resolve(module, "FT_Read", t.FT_Read);
    resolve(module, "FT_ClrRts", t.FT_ClrRts);
    resolve(module, "FT_SetRts", t.FT_SetRts);
    resolve(module, "FT_SetBaudRate", t.FT_SetBaudRate);
    resolve(module, "FT_OpenEx", t.FT_OpenEx);
    resolve(module, "FT_W32_ClearCommError", t.FT_W32_ClearCommError);
    resolve(module, "FT_GetDriverVersion", t.FT_GetDriverVersion);
    resolve(module, "FT_SetBitMode", t.FT_SetBitMode);
    resolve(module, "FT_ResetDevice", t.FT_ResetDevice);
    resolve(module, "FT_SetDataCharacteristics", t.FT_SetDataCharacteristics);
    resolve(module, "FT_SetFlowControl", t.FT_SetFlowControl);
    resolve(module, "FT_SetLatencyTimer", t.FT_SetLatencyTimer);
    resolve(module, "FT_GetLatencyTimer", t.FT_GetLatencyTimer);
    resolve(module, "FT_EE_Read", t.FT_EE_Read);
    resolve(module, "FT_CreateDeviceInfoList", t.FT_CreateDeviceInfoList);
    resolve(module, "FT_GetDeviceInfoDetail", t.FT_GetDeviceInfoDetail);
    resolve(module, "FT_GetComPortNumber", t.FT_GetComPortNumber);
    resolve(module, "FT_ListDevices", t.FT_ListDevices);
    zel::d2xx_install(t);
    g_module = module;
    return t.FT_Open && t.FT_Close && t.FT_Write;
}

extern "C" ZEL_API void UnloadFTD2XXLibrary(void *module)
{
    if (!module)
        return;
    if (module == g_module) {
        // The table must not outlive the code it points into.
        zel::d2xx_install(zel::D2xxTable{});
    }
    dlclose(module);
}
