#include <cstdio>

#include "core.h"

extern "C" int zsim_load_scenario(zsim *sim, const char *json, char *err, size_t err_len)
{
    (void)sim;
    (void)json;
    if (err && err_len)
        std::snprintf(err, err_len, "scenario files are not read yet");
    return -1;
}
