"""Register accessors: host/types/registers/registers.toml -> velt_registers.h.

Per block B: B_reg_read / _reg_write / _field_get / _field_set / _poll, taking
the register's offset from the handle's base.
Per register R of block B (handle H, buffer B_buffer_t; array registers take
the index n after the handle and are named B_reg_R_array_<op>):
  B_reg_R_read / _write / _field_set / _field_get / _poll
Per field F (array registers: B_field_array_F_<op>, B_field_array_range_F_set):
  B_field_F_set / _get / _poll / _set_to_clear, B_field_range_F_set
All are inline calls into velt_l1_sys with the absolute address, masks and shift.
"""
import tomllib

OUTPUT = "host/shared_host_device/generated/src/velt_registers.h"


class RegError(Exception):
    pass


def hx(v):
    return f"0x{v:X}"


def field_lines(block, reg, field):
    name, mask, shift = field
    if mask == 0 or (mask >> shift) << shift != mask:
        raise RegError(f"{block['name']}.{name}: mask {hx(mask)} does not start at bit {shift}")
    b, h, r = block["name"], block["handle"], reg["name"]
    arr = reg.get("array", False)
    kind = "array_" if arr else ""
    idx_param = ", UINT32 n" if arr else ""
    idx = ", n" if arr else ""
    rf = f"{b}_reg_{r}_{'array_' if arr else ''}"
    addr = reg_addr(reg)
    args = f"{b}_buffer_t* buf, {h}* h{idx_param}"
    unused = reg.get("unused", 0)
    return [
        f"inline void {b}_field_{kind}{name}_set({args}, UINT32 value)",
        f"{{ {rf}field_set(buf, h{idx}, {hx(mask)}, {shift}, value); }}",
        f"inline UINT32 {b}_field_{kind}{name}_get({args})",
        f"{{ return {rf}field_get(buf, h{idx}, {hx(mask)}, {shift}); }}",
        f"inline VELT_ERROR {b}_field_{kind}{name}_poll({args}, UINT32 value, VELT_POLL_COMPARISON_TYPE cmp, "
        f"UINT32 timeout_us)",
        f"{{ return {rf}poll(buf, h{idx}, {hx(mask)}, (value << {shift}) & {hx(mask)}, cmp, timeout_us); }}",
        f"inline void {b}_field_{kind}{name}_set_to_clear({args}, UINT32 value)",
        f"{{ velt_l1_sys_field_set_action_on_write(velt_coalesce_of(buf), h->sys_handle, {addr}, {hx(mask)}, "
        f"{shift}, {hx(unused)}, value); }}",
        f"inline void {b}_field_{kind}range_{name}_set({args}, UINT32 start_bit, UINT32 stop_bit, UINT32 value)",
        f"{{ velt_l1_sys_field_range_set(velt_coalesce_of(buf), h->sys_handle, {addr}, {hx(mask)}, {shift}, "
        f"{hx(unused)}, start_bit, stop_bit, value); }}",
    ]


def reg_addr(reg):
    off = f"h->base_address + {hx(reg['offset'])}"
    return off + " + 4 * n" if reg.get("array", False) else off


def register_lines(block, reg):
    b, h, r = block["name"], block["handle"], reg["name"]
    arr = reg.get("array", False)
    pre = f"{b}_reg_{r}_{'array_' if arr else ''}"
    args = f"{b}_buffer_t* buf, {h}* h" + (", UINT32 n" if arr else "")
    call = f"velt_coalesce_of(buf), h->sys_handle, {reg_addr(reg)}"
    unused = hx(reg.get("unused", 0))
    return [
        f"inline UINT32 {pre}read({args})",
        f"{{ return velt_l1_sys_reg_read({call}); }}",
        f"inline void {pre}write({args}, UINT32 value)",
        f"{{ velt_l1_sys_reg_write({call}, value); }}",
        f"inline void {pre}field_set({args}, UINT32 mask, UINT32 shift, UINT32 value)",
        f"{{ velt_l1_sys_field_set2({call}, mask, shift, {unused}, value); }}",
        f"inline UINT32 {pre}field_get({args}, UINT32 mask, UINT32 shift)",
        f"{{ return velt_l1_sys_field_get({call}, mask, shift); }}",
        f"inline VELT_ERROR {pre}poll({args}, UINT32 mask, UINT32 value, VELT_POLL_COMPARISON_TYPE cmp, "
        f"UINT32 timeout_us)",
        f"{{ return velt_l1_sys_poll({call}, mask, value, cmp, timeout_us); }}",
    ]


def block_lines(block):
    """Generic accessors of a block: any register by its offset from the handle's base."""
    b, h = block["name"], block["handle"]
    args = f"{b}_buffer_t* buf, {h}* h, UINT32 offset"
    call = "velt_coalesce_of(buf), h->sys_handle, h->base_address + offset"
    return [
        f"inline UINT32 {b}_reg_read({args})",
        f"{{ return velt_l1_sys_reg_read({call}); }}",
        f"inline void {b}_reg_write({args}, UINT32 value)",
        f"{{ velt_l1_sys_reg_write({call}, value); }}",
        f"inline UINT32 {b}_field_get({args}, UINT32 mask, UINT32 shift)",
        f"{{ return velt_l1_sys_field_get({call}, mask, shift); }}",
        f"inline void {b}_field_set({args}, UINT32 mask, UINT32 shift, UINT32 value)",
        f"{{ velt_l1_sys_field_set({call}, mask, shift, value); }}",
        f"inline VELT_ERROR {b}_poll({args}, UINT32 mask, UINT32 value, VELT_POLL_COMPARISON_TYPE cmp, "
        f"UINT32 timeout_us)",
        f"{{ return velt_l1_sys_poll({call}, mask, value, cmp, timeout_us); }}",
        "",
    ]


def generate(path, banner, src):
    with open(path, "rb") as f:
        blocks = tomllib.load(f)["block"]
    out = [banner.format(src=src).rstrip("\n"), "#ifndef VELT_REGISTERS_H", "#define VELT_REGISTERS_H", "",
           "#include \"velt_handle.h\"", "#include \"velt_l1_sys.h\"", ""]
    seen = set()
    for block in blocks:
        b = block["name"]
        out += [f"/* ---- {b} ---- */", "",
                f"inline void {b}_buffer_init({b}_buffer_t* buf) {{ buf->buffer = coalesce_buffer_t{{}}; }}",
                f"inline void {b}_buffer_flush({b}_buffer_t* buf) {{ velt_l1_sys_flush(&buf->buffer); }}",
                f"inline void {b}_buffer_force_read_modify_write({b}_buffer_t* buf) "
                f"{{ velt_l1_sys_force_read_modify_write(&buf->buffer); }}", ""]
        out += block_lines(block)
        for reg in block["registers"]:
            for name in [f"{b}_reg_{reg['name']}"] + [f"{b}_field_{f[0]}" for f in reg["fields"]]:
                if name in seen:
                    raise RegError(f"{name} is defined twice")
                seen.add(name)
            out += register_lines(block, reg)
            for field in reg["fields"]:
                out += field_lines(block, reg, field)
            out.append("")
    out += ["#endif /* VELT_REGISTERS_H */", ""]
    return "\n".join(out)
