CREATE DATABASE IF NOT EXISTS datastore;

CREATE TABLE IF NOT EXISTS datastore.appstate_AppState
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    rowid Int64,
    `key` Nullable(String),
    `data` Nullable(String),
    `filterGroup` Nullable(String),
    `dateTime` Nullable(String)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `rowid`);

CREATE TABLE IF NOT EXISTS datastore.genstore_GenericLog
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    rowid Int64,
    `typeUUID` Nullable(String),
    `guid` Nullable(String),
    `category` Nullable(String),
    `subCategory` Nullable(String),
    `creationTimeStamp` Nullable(Int64),
    `updateTimeStamp` Nullable(Int64),
    `tracked` Nullable(Int64),
    `flags` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `rowid`);

CREATE TABLE IF NOT EXISTS datastore.genstore_KeyValues
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    rowid Int64,
    `setID` Nullable(Int64),
    `key` Nullable(String),
    `value` Nullable(String),
    `tracked` Nullable(Int64),
    `updateTimeStamp` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `rowid`);

CREATE TABLE IF NOT EXISTS datastore.genstore_Version
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `version` Int64
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `version`);

CREATE TABLE IF NOT EXISTS datastore.event_AlertKeyValues
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    rowid Int64,
    `alertId` Nullable(Int64),
    `key` Nullable(String),
    `value` Nullable(String)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `rowid`);

CREATE TABLE IF NOT EXISTS datastore.event_AlertTips
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    rowid Int64,
    `alertId` Nullable(Int64),
    `key` Nullable(String),
    `type` Nullable(String),
    `title` Nullable(String),
    `text` Nullable(String),
    `extended_text` Nullable(String),
    `dateTime` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `rowid`);

CREATE TABLE IF NOT EXISTS datastore.event_Alerts
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    rowid Int64,
    `appId` Nullable(Int64),
    `guid` Nullable(String),
    `key` Nullable(String),
    `type` Nullable(String),
    `title` Nullable(String),
    `message` Nullable(String),
    `deviceName` Nullable(String),
    `dateTime` Nullable(Int64),
    `tracked` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `rowid`);

CREATE TABLE IF NOT EXISTS datastore.event_ApplicationRuns
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `appId` Int64,
    `name` Nullable(String),
    `typeOfRun` Nullable(String),
    `userName` Nullable(String),
    `startTime` Nullable(String),
    `endTime` Nullable(String)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `appId`);

CREATE TABLE IF NOT EXISTS datastore.event_Measurements
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    rowid Int64,
    `type` Nullable(String),
    `spanStartTime` Nullable(Int64),
    `spanEndTime` Nullable(Int64),
    `spanMiddleTime` Nullable(Int64),
    `maximum` Nullable(Float64),
    `minimum` Nullable(Float64),
    `average` Nullable(Float64),
    `median` Nullable(Float64),
    `numberOfSamples` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `rowid`);

CREATE TABLE IF NOT EXISTS datastore.event_ProfilerDiffs
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `diffId` Int64,
    `appId` Nullable(Int64),
    `category` Nullable(String),
    `dateTime` Nullable(Int64),
    `numberOfChanges` Nullable(String),
    `serializedDiff` Nullable(String)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `diffId`);

CREATE TABLE IF NOT EXISTS datastore.event_ScriptRuns
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `scriptId` Int64,
    `appId` Nullable(Int64),
    `name` Nullable(String),
    `result` Nullable(String),
    `startTime` Nullable(Int64),
    `endTime` Nullable(Int64),
    `totalPasses` Nullable(Int64),
    `specId` Nullable(Int64),
    `scriptGuid` Nullable(String)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `scriptId`);

CREATE TABLE IF NOT EXISTS datastore.event_ScriptSpecs
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `specId` Int64,
    `scriptXml` Nullable(String)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `specId`);

CREATE TABLE IF NOT EXISTS datastore.event_ScriptletRuns
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    rowid Int64,
    `appId` Nullable(Int64),
    `scriptletKey` Nullable(String),
    `category` Nullable(String),
    `result` Nullable(String),
    `status` Nullable(String),
    `dateTime` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `rowid`);

CREATE TABLE IF NOT EXISTS datastore.event_TestRunEvents
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    rowid Int64,
    `testId` Nullable(Int64),
    `message` Nullable(String),
    `type` Nullable(String),
    `eventCode` Nullable(String),
    `customerEventCode` Nullable(String),
    `dateTime` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `rowid`);

CREATE TABLE IF NOT EXISTS datastore.event_TestRunTips
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    rowid Int64,
    `testId` Nullable(Int64),
    `key` Nullable(String),
    `type` Nullable(String),
    `title` Nullable(String),
    `text` Nullable(String),
    `extended_text` Nullable(String),
    `dateTime` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `rowid`);

CREATE TABLE IF NOT EXISTS datastore.event_TestRuns
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `testId` Int64,
    `scriptId` Nullable(Int64),
    `testName` Nullable(String),
    `deviceName` Nullable(String),
    `result` Nullable(String),
    `startTime` Nullable(Int64),
    `endTime` Nullable(Int64),
    `testGuid` Nullable(String),
    `deviceGuid` Nullable(String),
    `deviceType` Nullable(String),
    `pass` Nullable(Int64),
    `errorCode` Nullable(String)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `testId`);

CREATE TABLE IF NOT EXISTS datastore.event_Versioning
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `version` Int64
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `version`);

CREATE TABLE IF NOT EXISTS datastore.softwarediagevent_FixActions
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `fixActionId` Int64,
    `sessionId` Nullable(Int64),
    `fixState` Nullable(Int64),
    `fixTypeUuid` Nullable(String),
    `fixSummary` Nullable(String),
    `fixResult` Nullable(String),
    `startTimeStamp` Nullable(Int64),
    `endTimeStamp` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `fixActionId`);

CREATE TABLE IF NOT EXISTS datastore.softwarediagevent_FixTransactions
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `fixTransactionId` Int64,
    `sessionId` Nullable(Int64),
    `restorePointUuid` Nullable(String),
    `startTimeStamp` Nullable(Int64),
    `endTimeStamp` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `fixTransactionId`);

CREATE TABLE IF NOT EXISTS datastore.softwarediagevent_Issues
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `issueId` Int64,
    `sessionId` Nullable(Int64),
    `softwareDiagnosticId` Nullable(Int64),
    `issueName` Nullable(String),
    `issueDescription` Nullable(String),
    `timeStamp` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `issueId`);

CREATE TABLE IF NOT EXISTS datastore.softwarediagevent_Issues_FixActions
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `issueFixActionId` Int64,
    `issueId` Nullable(Int64),
    `fixActionId` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `issueFixActionId`);

CREATE TABLE IF NOT EXISTS datastore.softwarediagevent_RunTransactions
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `runTransactionId` Int64,
    `sessionId` Nullable(Int64),
    `startTimeStamp` Nullable(Int64),
    `endTimeStamp` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `runTransactionId`);

CREATE TABLE IF NOT EXISTS datastore.softwarediagevent_Sessions
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `sessionId` Int64,
    `startTimeStamp` Nullable(Int64),
    `endTimeStamp` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `sessionId`);

CREATE TABLE IF NOT EXISTS datastore.softwarediagevent_SoftwareDiagnostics
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `softwareDiagnosticId` Int64,
    `sessionId` Nullable(Int64),
    `runTransactionId` Nullable(Int64),
    `diagnosticUuid` Nullable(String),
    `diagnosticName` Nullable(String),
    `diagnosticResult` Nullable(String),
    `startTimeStamp` Nullable(Int64),
    `endTimeStamp` Nullable(Int64)
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `softwareDiagnosticId`);

CREATE TABLE IF NOT EXISTS datastore.softwarediagevent_Versioning
(
    machine String,
    host String,
    store String,
    `table` String,
    _version UInt64,
    _deleted UInt8,
    `version` Int64
)
ENGINE = ReplacingMergeTree(_version)
ORDER BY (machine, `version`);
