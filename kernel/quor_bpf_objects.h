/*
 * The two programme sets' ELF objects, built from the .bpf.c files here and linked
 * into the program that loads them (libbpf bpf_object__open_mem), so that a
 * loader binary carries the programmes it loads. Read-only, any thread.
 */
#ifndef QUOR_BPF_OBJECTS_H
#define QUOR_BPF_OBJECTS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct quor_bpf_embedded_object {
    const char *name; /* object name: "QuorBpfDefineset", "QuorBpfGplDefineset" */
    const unsigned char *data;
    size_t size;
};

extern const struct quor_bpf_embedded_object quor_bpf_embedded_objects[];
extern const unsigned quor_bpf_embedded_object_count;

#ifdef __cplusplus
}
#endif

#endif /* QUOR_BPF_OBJECTS_H */
