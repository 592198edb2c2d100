/* Links the installed libraries and calls into each: prints the status text of ZEL_OK and, with WITH_ZELSIM,
 * the exchange count (0) of a simulated reader made and freed. */
#include <stdio.h>
#include <tandro/tandro.h>
#ifdef WITH_ZELSIM
#include <tandro/zelsim.h>
#endif

int main(void)
{
    unsigned long long exchanges = 0;
#ifdef WITH_ZELSIM
    zsim *sim = zsim_new();
    if (!sim)
        return 1;
    exchanges = (unsigned long long)zsim_exchange_count(sim);
    zsim_free(sim);
#endif
    printf("%s %llu\n", ZEL_Status2String(ZEL_OK), exchanges);
    return 0;
}
