// Life of the driver connection: the shared instance, open and close, and the one place
// where an ioctl is issued and its failure reported.
#include "mkfd/mkfd_interface.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "utils/logger.h"

MkfdInterface* MkfdInterface::mkfd_singleton_ = nullptr;

namespace {
std::mutex mkfd_init_mutex;
}  // namespace

vdxStatus MkfdInterface::Acquire() {
  std::lock_guard<std::mutex> lock(mkfd_init_mutex);
  if (mkfd_singleton_ != nullptr) {
    ++mkfd_singleton_->ref_count_;
    return VDX_STATUS_SUCCESS;
  }
  MkfdInterface* instance = new (std::nothrow) MkfdInterface();
  if (instance == nullptr) return VDX_STATUS_NO_MEMORY;
  instance->ref_count_ = 1;
  mkfd_singleton_ = instance;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::Release() {
  std::lock_guard<std::mutex> lock(mkfd_init_mutex);
  // The flat functions check first; this only keeps a stray call from freeing twice.
  if (mkfd_singleton_ == nullptr) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  if (--mkfd_singleton_->ref_count_ == 0) {
    delete mkfd_singleton_;
    mkfd_singleton_ = nullptr;
  }
  return VDX_STATUS_SUCCESS;
}

bool MkfdInterface::IsAcquire() {
  std::lock_guard<std::mutex> lock(mkfd_init_mutex);
  return mkfd_singleton_ != nullptr && mkfd_singleton_->ref_count_ != 0;
}

vdxStatus MkfdInterface::OpenMkfd() {
  std::lock_guard<std::mutex> lock(mkfd_mutex);
  if (mkfd_count != 0) {
    LOG_WARNING("mkfd has already openned.\n");
    // Counted although the status is not success: callers take this as open and close once
    // for it.
    ++mkfd_count;
    return VDX_STATUS_MKFD_ALREADY_OPENED;
  }
  const int fd = open(kMkfdDevice, O_RDWR | O_CLOEXEC);
  if (fd < 0) return VDX_STATUS_OPEN_MKFD_FAILED;
  mkfd_fd = fd;
  const vdxStatus scanned = GetSysNodeCount();
  // Commands on other threads read the node map as soon as they see the count: publish it
  // only once the map is complete. Whatever the scan said, the device is open now and the
  // caller closes it once.
  mkfd_count.store(1, std::memory_order_release);
  return scanned;
}

vdxStatus MkfdInterface::CloseMkfd() {
  if (mkfd_count < 1) return VDX_STATUS_MKFD_NOT_OPENED;
  std::lock_guard<std::mutex> lock(mkfd_mutex);
  // Another thread's close may have come first since the test above: look again under the
  // lock, or surplus closes would drive the count below zero.
  if (mkfd_count < 1) return VDX_STATUS_MKFD_NOT_OPENED;
  if (mkfd_count-- != 1) return VDX_STATUS_SUCCESS;
  // Descriptor 0 is never ours to close: it would be standard input in a process that
  // had closed it before opening the device.
  if (mkfd_fd > 0) close(mkfd_fd);
  return VDX_STATUS_SUCCESS;
}

int MkfdInterface::MkfdIoctl(int fd, unsigned long request, void* args) {
  for (;;) {
    const int ret = ioctl(fd, request, args);
    if (ret != -1) return ret;
    // The driver asks to be called again for both; it never loops on them for long.
    if (errno == EINTR || errno == EAGAIN) continue;
    if (errno == EBADF) {
      // Usually a descriptor inherited across fork, or closed behind our back.
      const int saved = errno;
      LOG_ERROR("MKFD file descriptor not valid in this process\n");
      errno = saved;
    }
    return -1;
  }
}

vdxStatus DmModeToKfdMode(dmRunMode mode, mkfd_process_run_mode* kfdMode) {
  switch (mode) {
    case DM_PROCESS_NONE_MODE:
      *kfdMode = KFD_PROCESS_NONE_MODE;
      return VDX_STATUS_SUCCESS;
    case DM_PROCESS_GROUP_MODE:
      *kfdMode = KFD_PROCESS_GROUP_MODE;
      return VDX_STATUS_SUCCESS;
    case DM_PROCESS_VDEV_MODE:
      *kfdMode = KFD_PROCESS_VGPU_MODE;
      return VDX_STATUS_SUCCESS;
  }
  return VDX_STATUS_ERROR;
}

vdxStatus DmTypeToKfdType(dmUpdateVdevType type, mkfd_update_vgpu_type* kfdType) {
  switch (type) {
    case DM_UPDATE_VDEV_VRAM_LIMIT:
      *kfdType = MKFD_UPDATE_VGPU_VRAM_LIMIT;
      return VDX_STATUS_SUCCESS;
    case DM_UPDATE_VDEV_CU_MASK:
      *kfdType = MKFD_UPDATE_VGPU_CU_MASK;
      return VDX_STATUS_SUCCESS;
  }
  return VDX_STATUS_ERROR;
}
