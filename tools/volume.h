// What filesystem the card in this machine carries, read without writing. A format leaves no other proof: the request
// keys answer the same whether it succeeded or not, but each new filesystem has an identity of its own.
#pragma once

#include <cstddef>
#include <cstdint>

struct fat_volume {
    uint32_t id;
    char label[12];  // without trailing blanks; not to be trusted by a terminal
};

constexpr size_t VOLUME_PATH = 256;
constexpr size_t VOLUMES_MAX = 16;

// Whether there is a card in this machine's slot, mounted or not.
bool volume_card_is_present();

// The device that is mounted as the card. False: none is.
bool volume_mounted(char (&device)[VOLUME_PATH]);

// Reads a device's boot sector. False: it cannot be read, or holds no FAT volume with an identity.
bool volume_read(const char* device, fat_volume* volume);

// The identities of what is mounted as the card and of every device of the card's major number. How many.
// The devices are closed again at once: one that is open keeps the kernel from reading a new partition table.
size_t volume_list(fat_volume (&volumes)[VOLUMES_MAX]);
