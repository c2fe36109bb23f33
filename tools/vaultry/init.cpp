// vaultry init: makes the store, or says that it exists.

#include "commands.h"
#include "json.h"
#include "store.h"
#include "text.h"

int RunInit(const Arguments &arguments)
{
    const std::string path = LocateStore(arguments.store);
    const bool wasThere = LookAtPlace(path) == PlaceKind::Store;
    const Store store = Store::OpenOrMake(path);
    if (arguments.json) {
        Json object;
        PutBytes(object, "store", path);
        object["made"] = !wasThere;
        object["generations"] = store.Names().size();
        PrintLine(object);
    } else if (wasThere) {
        printf("%s is a store already; generations: %zu\n", Quoted(path).c_str(), store.Names().size());
    } else {
        printf("%s is a store now\n", Quoted(path).c_str());
    }
    return 0;
}
