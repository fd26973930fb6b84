/*
 * Common utilities of the platform: lists and hash tables, shell commands, address texts, the device's identity.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A list of pointers with one cursor. It does not own what they point to. */
typedef struct List List;

/** Cursor operations of ListGet. */
enum {
    LIST_REWIND = 1, /**< moves the cursor before the first entry; returns NULL */
    LIST_NEXT = 4,   /**< moves to the next entry and returns it, NULL behind the last one */
};

List *ListCreate(void);                  /**< NULL when memory is short */
int ListAppend(List *list, void *entry); /**< 0, or -1 when memory is short */
void *ListGet(List *list, int operation);
uint32_t ListCount(const List *list);
void ListClear(List *list);   /**< takes all entries out, frees none of them */
void ListDestroy(List *list); /**< frees the list, none of its entries; NULL is allowed */

/**
 * A hash table with texts (or numbers) as keys and pointers as values. It keeps copies of the keys and iterates in the
 * order of insertion. Values are memory of malloc's.
 */
typedef struct HashTable HashTable;

/** Cursor operations of HashGet. */
enum {
    HASH_FIRST = 1, /**< moves to the first entry and returns its value, NULL when there is none */
    HASH_NEXT = 4,  /**< moves to the next entry and returns its value, NULL behind the last one */
};

HashTable *_HashCreate(uint32_t size_hint); /**< NULL when memory is short */

/** Inserts, or replaces the value in its place and frees the old one (unless it is the same). 0, or -1 without memory.
 */
int HashStringInsertKeyAndValue(HashTable *table, const char *key, void *value);
void *HashStringFind(HashTable *table, const char *key); /**< the value, or NULL */
int HashStringRemove(HashTable *table, const char *key); /**< 0 when found; the value is not freed; else -1 */
void *HashGet(HashTable *table, int operation);
uint32_t HashCount(const HashTable *table);
void *HashFind(HashTable *table, int key); /**< in a table keyed by numbers: the value, or NULL */

/**
 * Runs a shell command, as a direct child that the SIGCHLD handler reaps, and does not wait for it. Commands run one at
 * a time, in the order given, while the loop runs; one equal to the last one still waiting is not queued again. Only so
 * many wait (16 on Linux): the oldest is left out then, with a message. A command finds the device's own programs
 * ("/korva/bin") first in its PATH, no descriptor but 0 to 2, an empty signal mask and default dispositions.
 */
void execute_command(const char *command);

/** Runs such a command at once and waits for it alone. Returns its wait status, -1 when it could not be started. */
int execute_command_status(const char *command);

/** An IPv4 address text as inet_aton accepts it, in host byte order ("10.1.2.3" is 0x0A010203); 0 for any other text.
 */
uint32_t str_to_ip(const char *text);

/** The dotted text of an address as str_to_ip returns it, into `text` of `size` bytes (16 hold any). Returns `text`. */
char *ip_to_str(uint32_t ip, char *text, size_t size);

/** Reads "aa:bb:cc:dd:ee:ff", two digits each, into 6 bytes. Returns 0, or -1 and six zero bytes for any other text. */
int str_to_mac(const char *text, uint8_t *mac);

/**
 * The text of the platform's 20-byte address value (16-bit family, 2 reserved bytes, 16 address bytes; an IPv4
 * address is one host-order word) into `text` of `size` bytes (46 hold any). Returns `text`; "" for an unknown family.
 */
char *korva_ip_to_str_hton(const void *address, char *text, size_t size);

/**
 * The device's MAC address, `size` (6) bytes. The selector is the platform's scratch value, `flag` is 0. 0 on success.
 * On Linux: KORVA_MAC, else the address of the Ethernet interface of the lowest index.
 */
int get_mac_addr(uint8_t *mac, int size, void *selector, int flag);

/**
 * The device's serial number as text, cut to `size` - 1 characters and terminated. 0 on success.
 * On Linux: KORVA_SERIAL, else the first of the board's, the product's, the device tree's and the installation's
 * (/etc/machine-id) that is one: 1 to 63 printable characters without blanks, quotes and backslashes.
 */
int get_ap_serial_num(char *text, int size);

#ifdef __cplusplus
}
#endif
