// Where the USB serial devices are read from. Internal test seam: tests present a device tree of their own.
#ifndef ZEL_TRANSPORT_SYSFS_H
#define ZEL_TRANSPORT_SYSFS_H

namespace zel {

// Sets the root of the device tree, "/sys" unless a test set another (null restores it).
void set_sysfs_root(const char *root);
// Sets the folder the listed serial ports are named in, "/dev" unless a test or the simulated readers set
// another (null restores it): with "/tmp/x" the port ttyUSB3 of the device tree is "/tmp/x/ttyUSB3".
void set_dev_root(const char *root);

} // namespace zel

#endif
