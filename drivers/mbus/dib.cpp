#include "dib.h"

namespace mbus {

data_info read_dib(cursor& in) {
    data_info d;
    const uint8_t dif = in.byte("DIF");
    d.bytes.append(char(dif));
    d.coding = dif & 0x0f;
    d.function = static_cast<function_field>((dif >> 4) & 0x03);
    d.storage = (dif >> 6) & 0x01;

    // DIFE n adds storage bits 1+4n..4+4n, tariff bits 2n..2n+1 and subunit bit n.
    bool more = dif & 0x80;
    for (int n = 0; more; ++n) {
        if (n == max_extensions && d.problem.isEmpty()) {
            d.problem = QString("more than 10 DIFEs, at byte %1").arg(in.pos());
        }
        const uint8_t dife = in.byte("DIFE chain");
        d.bytes.append(char(dife));
        more = dife & 0x80;
        if (n >= max_extensions) {
            continue;  // read to the chain's end, not interpreted
        }
        d.storage |= uint64_t(dife & 0x0f) << (1 + 4 * n);
        d.tariff |= uint32_t((dife >> 4) & 0x03) << (2 * n);
        d.subunit |= uint32_t((dife >> 6) & 0x01) << n;
    }
    return d;
}

}  // namespace mbus
