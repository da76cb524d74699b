// An NVML client that asks as the field's clients do. It shares nothing with the simulator but the library's name, so
// its own idea of calls and records is what counts. Prints what does not hold.
//
//   field_client LISTING     on how many boards this client has to be in a list of processes

#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

// Without a prototype: each query is called with the arguments that its clients know.
typedef unsigned int Query();

enum { Room = 32, Guard = 0x55, NotSupported = 3, InsufficientSize = 7, OtherVersion = 25 };

#define FIND(name) ((Query*)(uintptr_t)dlsym(RTLD_DEFAULT, name))
#define ASK(name, ...) FIND("nvml" #name)(__VA_ARGS__)
#define EXPECT(condition) (void)((condition) || (++Failures, printf("line %d: %s\n", __LINE__, #condition)))

static int Failures;

// NOLINTBEGIN(readability-isolate-declaration): the outputs of one call after the other are declared together.

// Each version of the record has its own size, and the id in each leads back to the board.
static void CheckPci(void* device, const char* name, size_t bytes, size_t idAt) {
    char record[80];
    void* found = NULL;
    memset(record, Guard, sizeof record);
    EXPECT(FIND(name)(device, record) == 0 && record[bytes - 1] != Guard && record[bytes] == Guard);
    EXPECT(strtol(strchr(record + idAt, ':') + 1, NULL, 16) == record[20]);
    EXPECT(ASK(DeviceGetHandleByPciBusId_v2, record + idAt, &found) == 0 && found == device);
}

// Records of 16 bytes under the old name, of 24 under the new one; the processes are this system's. Result: how often
// they list this client.
static unsigned int CheckProcesses(void* device, const char* name, const char* newName) {
    uint64_t old[Room + 1][2] = {{0}}, now[Room][3];
    unsigned int count = 0, newCount = Room, listed = 0;
    const unsigned int needed = FIND(name)(device, &count, NULL), result = FIND(newName)(device, &newCount, now);
    if (result == NotSupported && needed == NotSupported) return 0;
    EXPECT(result == 0 && count == newCount && needed == (count > 0 ? InsufficientSize : 0));
    EXPECT(FIND(name)(device, &count, old) == 0 && old[count][0] == 0 && old[count][1] == 0);
    for (unsigned int i = 0; i < count; ++i) {
        EXPECT((uint32_t)old[i][0] == (uint32_t)now[i][0] && old[i][1] == now[i][1] && getpgid((pid_t)now[i][0]) >= 0);
        listed += (pid_t)now[i][0] == getpid();
    }
    return listed;
}

#define CHECK_LIST(kind) \
    CheckProcesses(device, "nvmlDeviceGet" kind "RunningProcesses", "nvmlDeviceGet" kind "RunningProcesses_v3")

// Boards are found again by what they say of themselves, newer queries say what older ones say, and what a board lacks
// it lacks under each name. Result: how often its lists have this client.
static unsigned int CheckBoard(unsigned int i) {
    char id[96];
    void *device = NULL, *found = NULL;
    uint64_t memory[3], newMemory[5] = {0x02000028}, samples[Room + 1][4] = {{0}}, lastSeen = 0;
    unsigned int value = ~0U, other = ~0U, room = Room;
    EXPECT(ASK(DeviceGetHandleByIndex_v2, i, &device) == 0 && ASK(DeviceGetIndex, device, &value) == 0 && value == i);
    EXPECT(ASK(DeviceGetUUID, device, id, 96U) == 0 && ASK(DeviceGetHandleByUUID, id, &found) == 0 && found == device);
    CheckPci(device, "nvmlDeviceGetPciInfo", 32, 0);
    CheckPci(device, "nvmlDeviceGetPciInfo_v2", 52, 0);
    CheckPci(device, "nvmlDeviceGetPciInfo_v3", 68, 36);
    EXPECT(ASK(DeviceGetMemoryInfo, device, memory) == 0 && ASK(DeviceGetMemoryInfo_v2, device, newMemory) == 0);
    EXPECT(newMemory[1] == memory[0] && newMemory[3] == memory[1] && newMemory[2] + newMemory[4] == memory[2]);
    EXPECT(newMemory[2] > 0 && ASK(DeviceGetMemoryInfo_v2, device, memory) == OtherVersion);
    EXPECT(ASK(DeviceGetFanSpeed_v2, device, 0U, &value) == ASK(DeviceGetFanSpeed, device, &value));
    EXPECT(ASK(DeviceGetTotalEnergyConsumption, device, memory) == ASK(DeviceGetPowerUsage, device, &value));
    EXPECT(ASK(DeviceGetClock, device, 0U, 3U, &value) == ASK(DeviceGetMaxClockInfo, device, 0U, &other));
    EXPECT(value == other && ASK(DeviceGetMigMode, device, &value, &other) == NotSupported);
    const unsigned int listed = CHECK_LIST("Compute") + CHECK_LIST("Graphics");
    EXPECT(ASK(DeviceGetProcessUtilization, device, samples, &room, lastSeen) == (listed > 0 ? 0 : NotSupported));
    EXPECT(listed == 0 || (samples[room - 1][1] > 0 && (uint32_t)samples[0][2] <= 100 && samples[room][1] == 0));
    return listed;
}

int main(int argc, char** argv) {
    unsigned int count = 0, listing = 0;
    if (dlopen("libnvidia-ml.so.1", RTLD_NOW | RTLD_GLOBAL) == NULL || ASK(InitWithFlags, 0U) != 0) return 2;
    EXPECT(argc == 2 && ASK(DeviceGetCount_v2, &count) == 0);
    for (unsigned int i = 0; i < count; ++i) listing += CheckBoard(i) > 0;
    EXPECT(listing == strtoul(argv[1], NULL, 10) && ASK(Shutdown, ) == 0);
    return Failures != 0;
}

// NOLINTEND(readability-isolate-declaration)
