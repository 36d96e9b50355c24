/* The four senders that carry all defect traffic. They have no frame of their
   own (no statistics, no trace) and return the exchange's result unchanged. */
#ifndef KAVO_API_DEFECT_INTERNAL_H
#define KAVO_API_DEFECT_INTERNAL_H

#include "kavo/kavo_api.h"

/* Sets the enables of every defect of object chnl_id from the e bits of a record of its type. */
VELT_ERROR kavo_defect_enable_set(const UINT32 device_id, const UINT32 chnl_id, const kavo_defect_type_t defect_type,
                                  const void* enables, const UINT32 enables_size);
/* Enables one defect, at byte ive_offset of its type's record. */
VELT_ERROR kavo_defect_e_set_internal(const UINT32 device_id, const UINT32 chnl_id, const kavo_defect_type_t defect_type,
                                      const UINT32 ive_offset, const BOOL32 enable);
/* Forces one defect present, or back to the chip's state. */
VELT_ERROR kavo_defect_chnl_v_set_internal(const UINT32 device_id, const UINT32 chnl_id,
                                           const kavo_defect_type_t defect_type, const UINT32 ive_offset,
                                           const BOOL32 enable);
/* Reads object chnl_id's record (kavo_defect_sizeof(defect_type) bytes) into defect_ptr, then clears as asked. */
VELT_ERROR kavo_defect_get(const UINT32 device_id, const UINT32 chnl_id, const kavo_defect_type_t defect_type,
                           const kavo_defect_transfer_clear_t clear_type, void* defect_ptr);

#endif
