/* The public headers compile as C11. */
#include "kavo/kavo_api.h"

int kavo_c_header_check(void)
{
    kavo_config_t cfg;
    kavo_config_t_init(&cfg);
    return (int)sizeof(cfg) + (int)KAVO_INIT_AUTO;
}
