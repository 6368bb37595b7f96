/*
 * The accelerator driver's "/dev/mkfd" request codes and argument records: the kernel's
 * wire format, shared by the library and the simulator. Little-endian, natural alignment
 * on LP64; every record is passed by address and the driver may write any field back.
 */
#ifndef ZOVDX_MKFD_IOCTL_H_
#define ZOVDX_MKFD_IOCTL_H_

#include <linux/ioctl.h>
#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

enum mkfd_process_run_mode {
  KFD_PROCESS_NONE_MODE = 0,
  KFD_PROCESS_GROUP_MODE = 1,
  KFD_PROCESS_VGPU_MODE = 2,
};

enum mkfd_update_vgpu_type {
  MKFD_UPDATE_VGPU_VRAM_LIMIT = 0,
  MKFD_UPDATE_VGPU_CU_MASK = 1,
};

struct mkfd_ioctl_set_process_mode_args {
  uint32_t mode; /* enum mkfd_process_run_mode */
  uint32_t pad0;
  uint64_t indentifier;
  uint32_t gpu_id;
  uint32_t pad1;
};

struct mkfd_ioctl_create_group_args {
  uint64_t indentifier;
  uint64_t vram_limit;
  uint64_t group_id;
};

struct mkfd_ioctl_destroy_group_args {
  uint64_t indentifier;
};

struct mkfd_ioctl_query_group_info_args {
  uint64_t indentifier;
  uint64_t vram_limit; /* out */
  uint64_t vram_usage; /* out */
  uint32_t gpu_id;
  int32_t result;      /* out: non-zero when the group exists */
  uint32_t refcount;   /* out */
  uint32_t pad0;
};

struct mkfd_ioctl_query_group_info_by_id_args {
  uint64_t group_id;
  uint64_t indentifier; /* out */
  uint64_t vram_limit;  /* out */
  uint64_t vram_usage;  /* out */
  uint32_t gpu_id;
  int32_t result;       /* out */
};

struct mkfd_ioctl_update_group_args {
  uint64_t indentifier;
  uint32_t gpu_id;
  uint32_t pad0;
  uint64_t vram_limit;
};

struct mkfd_ioctl_create_vgpu_args {
  uint32_t gpu_id;
  uint32_t vgpu_id;
  uint64_t group_id;
  uint64_t indentifier;
  uint64_t vram_limit;
  uint32_t num_cu_mask; /* number of mask bits */
  uint32_t pad0;
  uint64_t cu_mask_ptr; /* user address of the mask words */
};

struct mkfd_ioctl_destroy_vgpu_args {
  uint32_t gpu_id;
  uint32_t vgpu_id;
};

struct mkfd_ioctl_update_vgpu_args {
  uint32_t type; /* enum mkfd_update_vgpu_type */
  uint32_t gpu_id;
  uint32_t vgpu_id;
  uint32_t pad0;
  uint64_t vram_limit;
  uint32_t num_cu_mask;
  uint32_t pad1;
  uint64_t cu_mask_ptr;
};

struct mkfd_ioctl_query_vgpu_info_args {
  uint32_t gpu_id;
  uint32_t vgpu_id;
  uint64_t vram_limit;  /* out */
  uint64_t vram_usage;  /* out */
  uint64_t group_id;    /* out */
  uint64_t indentifier; /* out */
  uint32_t num_cu_mask;
  uint32_t pad0;
  uint64_t cu_mask_ptr; /* the driver writes the mask there */
  uint32_t se_mask[8];  /* out */
  uint32_t refcount;    /* out */
  uint32_t pad1;
};

struct mkfd_ioctl_query_vgpu_se_info_args {
  uint32_t gpu_id;
  uint32_t vgpu_id;
  uint32_t num_cu_mask;
  uint32_t pad0;
  uint64_t cu_mask_ptr;
  uint32_t se_mask[8]; /* out */
};

struct mkfd_ioctl_get_wave_info_args {
  uint32_t gpu_id;
  uint32_t wave_count; /* out */
  uint64_t buffer;     /* user address */
  uint64_t buffer_size;
  uint32_t gpr; /* 0 or 1 */
  uint32_t pad;
};

struct mkfd_ioctl_get_cu_busy_args {
  uint32_t gpu_id;
  uint32_t se_mask[8]; /* out */
};

struct mkfd_ioctl_get_available_mem_size_args {
  uint64_t available; /* out, bytes */
  uint32_t gpu_id;
  uint32_t pad;
};

struct mkfd_ioctl_create_zouds_conn_args {
  int32_t fd; /* out: a socket connected to the manager service, installed in the caller */
};

struct mkfd_ioctl_atc_vmid_pasid_mapping_info_args {
  uint32_t gpu_id;
  uint8_t vmid;
  uint8_t pad;
  uint16_t pasid; /* out */
};

struct mkfd_ioctl_regs_op_args {
  uint32_t gpu_id;
  bool read;
  bool pm_pg_lock;
  bool use_bank;
  bool use_ring;
  uint32_t se_bank;
  uint32_t sh_bank;
  uint32_t instance_bank;
  uint32_t me;
  uint32_t pipe;
  uint32_t queue;
  uint32_t vmid;
  uint32_t reg;
  uint32_t value; /* in for a write, out for a read */
};

struct mkfd_ioctl_get_codec_busy_args {
  uint32_t gpu_id;
  bool is_dec;
  uint8_t pad0;
  uint16_t total_instance; /* out */
  uint16_t busy_instance;  /* out */
  uint16_t pad1;
};

#define MKFD_IOCTL_BASE 'M'
#define MKFD_IOWR(nr, type) _IOWR(MKFD_IOCTL_BASE, nr, type)

#define MKFD_IOC_SET_PROCESS_MODE MKFD_IOWR(0x01, struct mkfd_ioctl_set_process_mode_args)
#define MKFD_IOC_CREATE_VGPU MKFD_IOWR(0x02, struct mkfd_ioctl_create_vgpu_args)
#define MKFD_IOC_DESTROY_VGPU MKFD_IOWR(0x03, struct mkfd_ioctl_destroy_vgpu_args)
#define MKFD_IOC_UPDATE_VGPU MKFD_IOWR(0x04, struct mkfd_ioctl_update_vgpu_args)
#define MKFD_IOC_CREATE_GROUP MKFD_IOWR(0x05, struct mkfd_ioctl_create_group_args)
#define MKFD_IOC_DESTROY_GROUP MKFD_IOWR(0x06, struct mkfd_ioctl_destroy_group_args)
#define MKFD_IOC_QUERY_GROUP_INFO MKFD_IOWR(0x07, struct mkfd_ioctl_query_group_info_args)
#define MKFD_IOC_QUERY_VGPU_INFO MKFD_IOWR(0x08, struct mkfd_ioctl_query_vgpu_info_args)
#define MKFD_IOC_QUERY_GROUP_INFO_BY_ID \
  MKFD_IOWR(0x09, struct mkfd_ioctl_query_group_info_by_id_args)
#define MKFD_IOC_UPDATE_GROUP MKFD_IOWR(0x10, struct mkfd_ioctl_update_group_args)
#define MKFD_IOC_GET_WAVE_INFO MKFD_IOWR(0x11, struct mkfd_ioctl_get_wave_info_args)
#define MKFD_IOC_GET_CU_BUSY MKFD_IOWR(0x12, struct mkfd_ioctl_get_cu_busy_args)
#define MKFD_IOC_GET_AVAILABLE_MEM MKFD_IOWR(0x13, struct mkfd_ioctl_get_available_mem_size_args)
#define MKFD_IOC_CREATE_ZOUDS_CONN MKFD_IOWR(0x15, struct mkfd_ioctl_create_zouds_conn_args)
#define MKFD_IOC_VMID_PASID_MAPPING \
  MKFD_IOWR(0x16, struct mkfd_ioctl_atc_vmid_pasid_mapping_info_args)
#define MKFD_IOC_REGS_OP MKFD_IOWR(0x18, struct mkfd_ioctl_regs_op_args)
#define MKFD_IOC_QUERY_VGPU_SE_INFO MKFD_IOWR(0x19, struct mkfd_ioctl_query_vgpu_se_info_args)
#define MKFD_IOC_GET_CODEC_BUSY MKFD_IOWR(0x1C, struct mkfd_ioctl_get_codec_busy_args)

/* The layout is the kernel's: any drift here would corrupt what the driver reads. */
#ifdef __cplusplus
#define MKFD_CHECK_(cond, msg) static_assert(cond, msg)
#else
#define MKFD_CHECK_(cond, msg) _Static_assert(cond, msg)
#endif
#define MKFD_CHECK_SIZE_(rec, size) MKFD_CHECK_(sizeof(struct rec) == (size), #rec " size")
#define MKFD_CHECK_AT_(rec, field, off) \
  MKFD_CHECK_(offsetof(struct rec, field) == (off), #rec "." #field " offset")

MKFD_CHECK_SIZE_(mkfd_ioctl_set_process_mode_args, 24);
MKFD_CHECK_AT_(mkfd_ioctl_set_process_mode_args, mode, 0);
MKFD_CHECK_AT_(mkfd_ioctl_set_process_mode_args, indentifier, 8);
MKFD_CHECK_AT_(mkfd_ioctl_set_process_mode_args, gpu_id, 16);

MKFD_CHECK_SIZE_(mkfd_ioctl_create_group_args, 24);
MKFD_CHECK_AT_(mkfd_ioctl_create_group_args, indentifier, 0);
MKFD_CHECK_AT_(mkfd_ioctl_create_group_args, vram_limit, 8);
MKFD_CHECK_AT_(mkfd_ioctl_create_group_args, group_id, 16);

MKFD_CHECK_SIZE_(mkfd_ioctl_destroy_group_args, 8);
MKFD_CHECK_AT_(mkfd_ioctl_destroy_group_args, indentifier, 0);

MKFD_CHECK_SIZE_(mkfd_ioctl_query_group_info_args, 40);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_args, indentifier, 0);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_args, vram_limit, 8);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_args, vram_usage, 16);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_args, gpu_id, 24);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_args, result, 28);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_args, refcount, 32);

MKFD_CHECK_SIZE_(mkfd_ioctl_query_group_info_by_id_args, 40);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_by_id_args, group_id, 0);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_by_id_args, indentifier, 8);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_by_id_args, vram_limit, 16);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_by_id_args, vram_usage, 24);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_by_id_args, gpu_id, 32);
MKFD_CHECK_AT_(mkfd_ioctl_query_group_info_by_id_args, result, 36);

MKFD_CHECK_SIZE_(mkfd_ioctl_update_group_args, 24);
MKFD_CHECK_AT_(mkfd_ioctl_update_group_args, indentifier, 0);
MKFD_CHECK_AT_(mkfd_ioctl_update_group_args, gpu_id, 8);
MKFD_CHECK_AT_(mkfd_ioctl_update_group_args, vram_limit, 16);

MKFD_CHECK_SIZE_(mkfd_ioctl_create_vgpu_args, 48);
MKFD_CHECK_AT_(mkfd_ioctl_create_vgpu_args, gpu_id, 0);
MKFD_CHECK_AT_(mkfd_ioctl_create_vgpu_args, vgpu_id, 4);
MKFD_CHECK_AT_(mkfd_ioctl_create_vgpu_args, group_id, 8);
MKFD_CHECK_AT_(mkfd_ioctl_create_vgpu_args, indentifier, 16);
MKFD_CHECK_AT_(mkfd_ioctl_create_vgpu_args, vram_limit, 24);
MKFD_CHECK_AT_(mkfd_ioctl_create_vgpu_args, num_cu_mask, 32);
MKFD_CHECK_AT_(mkfd_ioctl_create_vgpu_args, cu_mask_ptr, 40);

MKFD_CHECK_SIZE_(mkfd_ioctl_destroy_vgpu_args, 8);
MKFD_CHECK_AT_(mkfd_ioctl_destroy_vgpu_args, gpu_id, 0);
MKFD_CHECK_AT_(mkfd_ioctl_destroy_vgpu_args, vgpu_id, 4);

MKFD_CHECK_SIZE_(mkfd_ioctl_update_vgpu_args, 40);
MKFD_CHECK_AT_(mkfd_ioctl_update_vgpu_args, type, 0);
MKFD_CHECK_AT_(mkfd_ioctl_update_vgpu_args, gpu_id, 4);
MKFD_CHECK_AT_(mkfd_ioctl_update_vgpu_args, vgpu_id, 8);
MKFD_CHECK_AT_(mkfd_ioctl_update_vgpu_args, vram_limit, 16);
MKFD_CHECK_AT_(mkfd_ioctl_update_vgpu_args, num_cu_mask, 24);
MKFD_CHECK_AT_(mkfd_ioctl_update_vgpu_args, cu_mask_ptr, 32);

MKFD_CHECK_SIZE_(mkfd_ioctl_query_vgpu_info_args, 96);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_info_args, gpu_id, 0);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_info_args, vgpu_id, 4);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_info_args, vram_limit, 8);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_info_args, vram_usage, 16);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_info_args, group_id, 24);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_info_args, indentifier, 32);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_info_args, num_cu_mask, 40);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_info_args, cu_mask_ptr, 48);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_info_args, se_mask, 56);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_info_args, refcount, 88);

MKFD_CHECK_SIZE_(mkfd_ioctl_query_vgpu_se_info_args, 56);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_se_info_args, gpu_id, 0);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_se_info_args, vgpu_id, 4);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_se_info_args, num_cu_mask, 8);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_se_info_args, cu_mask_ptr, 16);
MKFD_CHECK_AT_(mkfd_ioctl_query_vgpu_se_info_args, se_mask, 24);

MKFD_CHECK_SIZE_(mkfd_ioctl_get_wave_info_args, 32);
MKFD_CHECK_AT_(mkfd_ioctl_get_wave_info_args, gpu_id, 0);
MKFD_CHECK_AT_(mkfd_ioctl_get_wave_info_args, wave_count, 4);
MKFD_CHECK_AT_(mkfd_ioctl_get_wave_info_args, buffer, 8);
MKFD_CHECK_AT_(mkfd_ioctl_get_wave_info_args, buffer_size, 16);
MKFD_CHECK_AT_(mkfd_ioctl_get_wave_info_args, gpr, 24);
MKFD_CHECK_AT_(mkfd_ioctl_get_wave_info_args, pad, 28);

MKFD_CHECK_SIZE_(mkfd_ioctl_get_cu_busy_args, 36);
MKFD_CHECK_AT_(mkfd_ioctl_get_cu_busy_args, gpu_id, 0);
MKFD_CHECK_AT_(mkfd_ioctl_get_cu_busy_args, se_mask, 4);

MKFD_CHECK_SIZE_(mkfd_ioctl_get_available_mem_size_args, 16);
MKFD_CHECK_AT_(mkfd_ioctl_get_available_mem_size_args, available, 0);
MKFD_CHECK_AT_(mkfd_ioctl_get_available_mem_size_args, gpu_id, 8);
MKFD_CHECK_AT_(mkfd_ioctl_get_available_mem_size_args, pad, 12);

MKFD_CHECK_SIZE_(mkfd_ioctl_create_zouds_conn_args, 4);
MKFD_CHECK_AT_(mkfd_ioctl_create_zouds_conn_args, fd, 0);

MKFD_CHECK_SIZE_(mkfd_ioctl_atc_vmid_pasid_mapping_info_args, 8);
MKFD_CHECK_AT_(mkfd_ioctl_atc_vmid_pasid_mapping_info_args, gpu_id, 0);
MKFD_CHECK_AT_(mkfd_ioctl_atc_vmid_pasid_mapping_info_args, vmid, 4);
MKFD_CHECK_AT_(mkfd_ioctl_atc_vmid_pasid_mapping_info_args, pad, 5);
MKFD_CHECK_AT_(mkfd_ioctl_atc_vmid_pasid_mapping_info_args, pasid, 6);

MKFD_CHECK_SIZE_(mkfd_ioctl_regs_op_args, 44);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, gpu_id, 0);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, read, 4);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, pm_pg_lock, 5);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, use_bank, 6);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, use_ring, 7);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, se_bank, 8);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, sh_bank, 12);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, instance_bank, 16);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, me, 20);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, pipe, 24);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, queue, 28);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, vmid, 32);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, reg, 36);
MKFD_CHECK_AT_(mkfd_ioctl_regs_op_args, value, 40);

MKFD_CHECK_SIZE_(mkfd_ioctl_get_codec_busy_args, 12);
MKFD_CHECK_AT_(mkfd_ioctl_get_codec_busy_args, gpu_id, 0);
MKFD_CHECK_AT_(mkfd_ioctl_get_codec_busy_args, is_dec, 4);
MKFD_CHECK_AT_(mkfd_ioctl_get_codec_busy_args, total_instance, 6);
MKFD_CHECK_AT_(mkfd_ioctl_get_codec_busy_args, busy_instance, 8);

/* The request codes are fixed numbers in the driver; the _IOWR forms must agree with them. */
MKFD_CHECK_(MKFD_IOC_SET_PROCESS_MODE == 0xC0184D01u, "set process mode code");
MKFD_CHECK_(MKFD_IOC_CREATE_VGPU == 0xC0304D02u, "create vgpu code");
MKFD_CHECK_(MKFD_IOC_DESTROY_VGPU == 0xC0084D03u, "destroy vgpu code");
MKFD_CHECK_(MKFD_IOC_UPDATE_VGPU == 0xC0284D04u, "update vgpu code");
MKFD_CHECK_(MKFD_IOC_CREATE_GROUP == 0xC0184D05u, "create group code");
MKFD_CHECK_(MKFD_IOC_DESTROY_GROUP == 0xC0084D06u, "destroy group code");
MKFD_CHECK_(MKFD_IOC_QUERY_GROUP_INFO == 0xC0284D07u, "query group code");
MKFD_CHECK_(MKFD_IOC_QUERY_VGPU_INFO == 0xC0604D08u, "query vgpu code");
MKFD_CHECK_(MKFD_IOC_QUERY_GROUP_INFO_BY_ID == 0xC0284D09u, "query group by id code");
MKFD_CHECK_(MKFD_IOC_UPDATE_GROUP == 0xC0184D10u, "update group code");
MKFD_CHECK_(MKFD_IOC_GET_WAVE_INFO == 0xC0204D11u, "wave info code");
MKFD_CHECK_(MKFD_IOC_GET_CU_BUSY == 0xC0244D12u, "cu busy code");
MKFD_CHECK_(MKFD_IOC_GET_AVAILABLE_MEM == 0xC0104D13u, "available memory code");
MKFD_CHECK_(MKFD_IOC_CREATE_ZOUDS_CONN == 0xC0044D15u, "zouds connection code");
MKFD_CHECK_(MKFD_IOC_VMID_PASID_MAPPING == 0xC0084D16u, "vmid pasid code");
MKFD_CHECK_(MKFD_IOC_REGS_OP == 0xC02C4D18u, "register op code");
MKFD_CHECK_(MKFD_IOC_QUERY_VGPU_SE_INFO == 0xC0384D19u, "query vgpu se code");
MKFD_CHECK_(MKFD_IOC_GET_CODEC_BUSY == 0xC00C4D1Cu, "codec busy code");

#undef MKFD_CHECK_AT_
#undef MKFD_CHECK_SIZE_
#undef MKFD_CHECK_

#endif /* ZOVDX_MKFD_IOCTL_H_ */
