#include "group/list_mutex.h"

#include "core/console.h"

ListMutex::ListMutex(const char* listName, Mutex::Kind kind) : name(listName) {
    if (mutex.init(kind) != 0) {
        complain("initialize");
    }
}

void ListMutex::complain(const char* operation) const {
    printLine("Could not %s %s mutex!", operation, name);
}
