// Pseudo-random octets from the universal generator RANMAR (Marsaglia, Zaman and Tsang), seeded
// from the hardware address of eth0: the same machine gets the same octets again.
#ifndef VEX_STATUS_RANMAR_H
#define VEX_STATUS_RANMAR_H

// Results of the functions below, besides 0.
enum ranmar_error { RANMAR_FAILED = -11 };

// Seeds the generator: the first seed is always 0, the second comes from the last two octets of
// eth0's hardware address (0 without eth0). Returns 0 or a negative code.
int seed_generator();

// Writes the next `count` octets, at most 128, to buffer; 128 values are drawn whatever the count.
// Returns 0, or RANMAR_FAILED with the buffer untouched when the generator was never seeded.
int generate_octets(unsigned char *buffer, int count);

// Copies `count` octets (at most 6) of the hardware address of interface eth<number> to buffer,
// from the last octet backwards. Returns 0, or -1 when there is no such interface.
int read_hardware_address(int number, unsigned char *buffer, int count);

// Initialises the generator itself: ij in 0..31328, kl in 0..30081. Returns 0, or RANMAR_FAILED for
// seeds outside that (the generator then counts as seeded, with what it held before).
int ranmar_initialise(int ij, int kl);

// The next `count` values, each in 0 <= value < 1 and a multiple of 2^-24. Returns 0 or
// RANMAR_FAILED.
int ranmar_values(float *values, int count);

#endif
