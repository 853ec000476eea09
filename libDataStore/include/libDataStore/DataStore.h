#pragma once

// Every exported class of libDataStore and of the runtime library libCommon it stands on.

#include <libCommon/Array.h>
#include <libCommon/DateTime.h>
#include <libCommon/Exception.h>
#include <libCommon/FileSystem.h>
#include <libCommon/GlobalMutex.h>
#include <libCommon/HashTable.h>
#include <libCommon/Logger.h>
#include <libCommon/OrderedHashTable.h>
#include <libCommon/Resource.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>
#include <libCommon/SharedResource.h>
#include <libCommon/SprintfFormat.h>
#include <libCommon/String.h>
#include <libCommon/System.h>
#include <libCommon/ZRNValue.h>
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/DataStoreExceptions.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/EventRecords.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/GeneralRecords.h>
#include <libDataStore/PruneResult.h>
#include <libDataStore/ReadOnly.h>
#include <libDataStore/SQLiteDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>
#include <libDataStore/SoftwareDiagRecords.h>
#include <libDataStore/StoreBatch.h>
#include <libDataStore/StoreReader.h>
#include <libDataStore/TimeStamp.h>
