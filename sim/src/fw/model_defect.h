// Defects of every object, derived from the other models' state.
#ifndef KAVO_SIM_FW_MODEL_DEFECT_H
#define KAVO_SIM_FW_MODEL_DEFECT_H

#include <array>
#include <cstddef>
#include <vector>

#include "kavo/kavo_api.h"
#include "kavo_sim/gen/kavo_sim_types.h"

namespace kavo_sim::fw {

class firmware;

/* What the defect and counter models read of the rest of the chip. The
   firmware answers from its models and knobs; tests drive it by hand. */
struct chip_view {
    virtual ~chip_view() = default;
    /* The channel is provisioned as an Ethernet port (with or without AN/LT). */
    virtual bool enet_port(UINT32 chnl) const = 0;
    /* The port's link is up (PCS locked and aligned). */
    virtual bool link_up(UINT32 chnl) const = 0;
    /* The SerDes port's receiver sees a signal. */
    virtual bool signal_present(UINT32 port) const = 0;
    /* The channel that owns the SerDes port, or 0xFFFFFFFF. */
    virtual UINT32 serdes_owner(UINT32 port) const = 0;
    virtual UINT32 knob(sim_knob_t knob, UINT32 index) const = 0;
};

/* The chip's answers, from the firmware's models and knobs. */
struct firmware_view final : chip_view {
    explicit firmware_view(const firmware& f) : fw(f) {}
    bool enet_port(UINT32 chnl) const override;
    bool link_up(UINT32 chnl) const override;
    bool signal_present(UINT32 port) const override;
    UINT32 serdes_owner(UINT32 port) const override;
    UINT32 knob(sim_knob_t knob, UINT32 index) const override;
    const firmware& fw;
};

/* The firmware's defect store: per object a record exactly as the host reads
   it, one byte per defect. v follows the chip's state (or a value forced for
   testing), i latches on every rise of v until a read clears it, e is what the
   host enabled; the summary bytes are computed from the defects. */
class defect_model {
  public:
    static constexpr UINT32 NUM_TYPES = LAST_KAVO_DEFECT_TYPE;
    static constexpr UINT32 MAX_RECORD = sizeof(kavo_defect_flexe_group_segment_t);

    defect_model();

    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
    /* Re-derives every defect from the chip's state; true when an enabled
       defect latched (the firmware then raises VELT_IPI_DEFECTS_ENABLED). */
    bool update(const chip_view& chip);

    /* Record size of a type, 0 for a type without records. */
    static UINT32 record_size(UINT32 type);
    /* Objects of a type (ids 0 .. count - 1). */
    static UINT32 object_count(UINT32 type);

    // The host's operations, each answering a result code. The view decides
    // which Ethernet ports exist.
    VELT_ERROR enable_set(const chip_view& chip, UINT32 type, UINT32 id, const UINT8* enables, UINT32 size,
                          bool& latched_enabled);
    VELT_ERROR e_set(const chip_view& chip, UINT32 type, UINT32 id, UINT32 offset, bool enable,
                     bool& latched_enabled);
    VELT_ERROR v_set(const chip_view& chip, UINT32 type, UINT32 id, UINT32 offset, bool force,
                     bool& latched_enabled);
    /* Copies the record out (size record_size(type)), then clears as asked. */
    VELT_ERROR get(const chip_view& chip, UINT32 type, UINT32 id, UINT32 clear, UINT8* out);
    void summary(kavo_defect_device_summary_t& out) const;

  private:
    struct object {
        std::vector<UINT8> bytes;  // the record, summary byte first
        std::vector<UINT8> state;  // v as the chip's state derives it, per byte
        std::vector<UINT8> forced; // 1 where the host forced v on
        bool present = false;      // the object exists (an Ethernet port is provisioned)
    };

    VELT_ERROR find(const chip_view& chip, UINT32 type, UINT32 id, object*& obj);
    VELT_ERROR find_defect(const chip_view& chip, UINT32 type, UINT32 id, UINT32 offset, object*& obj);
    void reset(UINT32 type, object& obj);
    /* Sets v of every defect from state and forces; true when an enabled defect latched. */
    static bool settle(object& obj);
    static void summarise(object& obj);
    void derive_enet(const chip_view& chip, UINT32 chnl, object& obj);
    void derive_serdes(const chip_view& chip, UINT32 port, object& obj);

    std::array<std::vector<object>, NUM_TYPES> objects_;
    std::array<std::vector<UINT8>, NUM_TYPES> valid_; // 1 for each byte that is a defect
};

} // namespace kavo_sim::fw

#endif
