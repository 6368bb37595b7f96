// The frame every request that changes the configuration shares (create, both destroys,
// update), after its own root, container and argument checks: virtual_device_lock and the
// file lock shared, a current configuration, the plan, the raise to exclusive, the plan again
// when another process changed the files meanwhile, the work, and the generation bumped so
// that every process reads the change. Callers hold the gate and no other lock; the frame
// takes virtual_device_lock and the file lock, and its steps run under both.
#ifndef ZOVDX_VIRTUAL_CHANGE_FRAME_H_
#define ZOVDX_VIRTUAL_CHANGE_FRAME_H_

#include "utils/logger.h"
#include "utils/mutex.h"
#include "virtual/dmvirtual_labels.h"
#include "virtual/include/dmvirtual.h"
#include "virtual/include/zovdx/vdx.h"
#include "virtual/run_state.h"

// before_raise makes the plan, and runs again when another process changed the files
// between the shared lock and the exclusive one; work does the change. A non-zero status of
// either ends the request. `plural` picks the request's wording of the re-initialisation
// message.
template <typename BeforeRaise, typename Work>
vdxStatus Dmvirtual::iUnderExclusiveFileLock(bool plural, const char* caller,
                                             BeforeRaise before_raise, Work work) {
  // The update's message says "devices", create's and the destroys' "device".
  const auto reinit_failed = [plural, caller](vdxStatus status) {
    if (plural)
      LOG_DEBUG("[%s] %s: check and re-initialize virtual devices failed.\n", caller, kLabelError);
    else
      LOG_DEBUG("[%s] %s: check and re-initialize virtual device failed.\n", caller, kLabelError);
    return status;
  };
  utils::WriterLock vdevs(&virtual_device_lock);
  ConfigLock file_lock(FileLocker::kShared);
  vdxStatus status = iCheckAndReinitVirtualDevice();
  if (status != VDX_STATUS_SUCCESS) return reinit_failed(status);
  status = before_raise();
  if (status != VDX_STATUS_SUCCESS) return status;
  file_lock.Raise();
  // Another process may have changed the files before the exclusive lock was had: the work is
  // done on what is there now.
  bool changed = false;
  status = iReloadUnderExclusiveLock(&changed);
  if (status != VDX_STATUS_SUCCESS) return reinit_failed(status);
  if (changed) {
    status = before_raise();
    if (status != VDX_STATUS_SUCCESS) return status;
  }
  status = work();
  // Whatever the work changed, every process reads it again before it trusts its view.
  BumpGeneration();
  return status;
}

#endif  // ZOVDX_VIRTUAL_CHANGE_FRAME_H_
