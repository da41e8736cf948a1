// Decimal number reading that gives the same answers on every architecture:
// those of atoi and sscanf's "%d" on 64-bit glibc (x86-64, arm64), where a
// number is read as a 64-bit long, saturates at the 64-bit limits and then
// keeps its low 32 bits. On 32-bit ARM the C library saturates at the 32-bit
// limits instead, so a rules document with long numbers would mean something
// else there. Stateless free functions; safe from any thread.
#ifndef TPA_CIDR_DECIMAL_H_
#define TPA_CIDR_DECIMAL_H_

namespace tpa::cidr {

struct DecimalReading {
  int value = 0;              // what atoi returns
  const char* end = nullptr;  // past the last digit; the text itself when no digit was read
  bool fitsInt = true;        // the number as written is within the int range
};

// Leading white space (" \t\n\v\f\r"), an optional sign, decimal digits.
// "4294967306" gives 10, "99999999999999999999" -1, "-99999999999999999999" 0.
[[nodiscard]] DecimalReading readDecimal(const char* text);
[[nodiscard]] inline int decimalAtoi(const char* text) { return readDecimal(text).value; }

// sscanf(text, "%d.%d.%d.%d/%d", ...): each number may follow white space,
// each '.' and '/' must follow the number at once, and the first failure
// stops the scan. Returns the count of numbers read, or -1 when the text ends
// before the first; parts past that count are left as they were.
[[nodiscard]] int scanDottedDecimals(const char* text, int (&parts)[5]);

}  // namespace tpa::cidr

#endif  // TPA_CIDR_DECIMAL_H_
