#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

namespace zrn {

// A number of one of several types, used to format numbers as text.
class ZRN_COMMON_API ZRNValue {
public:
    ZRNValue(int value);                 // NOLINT: implicit by design
    ZRNValue(unsigned int value);        // NOLINT
    ZRNValue(long value);                // NOLINT
    ZRNValue(unsigned long value);       // NOLINT
    ZRNValue(long long value);           // NOLINT
    ZRNValue(unsigned long long value);  // NOLINT
    ZRNValue(double value);              // NOLINT

    // The format that gives the plain decimal text of the number.
    static unsigned int nilValue() { return 0; }

    // With nilValue(): integers in plain decimal ("-12", "18446744073709551615"), doubles in
    // the shortest text that reads back to the same value ("0.1", "1e+20").
    String toString(unsigned int format) const;

private:
    enum Type { SIGNED, UNSIGNED, REAL };
    Type m_type;
    long long m_signed = 0;
    unsigned long long m_unsigned = 0;
    double m_real = 0;
};

}  // namespace zrn
