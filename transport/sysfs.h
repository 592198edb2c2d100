// Where the USB serial devices are read from. Internal test seam: tests present a device tree of their own.
#ifndef ZEL_TRANSPORT_SYSFS_H
#define ZEL_TRANSPORT_SYSFS_H

namespace zel {

// Sets the root of the device tree, "/sys" unless a test set another (null restores it).
void set_sysfs_root(const char *root);

} // namespace zel

#endif
