// A kernel module that does nothing but bear the name that the product waits for.
#include <linux/module.h>

static int __init vboxdrv_start(void) {
    return 0;
}

static void __exit vboxdrv_stop(void) {
}

module_init(vboxdrv_start);
module_exit(vboxdrv_stop);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Sample driver");
