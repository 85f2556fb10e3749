-- Template of the shared database ("shared_data" in the bundle's resources),
-- copied into ".Shared" of the application-group container when the file is
-- missing or unreadable. The program never creates a table.
CREATE TABLE SharedData (
    activeProfileID TEXT,
    timestamps TEXT,
    profiles TEXT,
    profileIDs TEXT,
    profileUpdates TEXT,
    status INTEGER,
    addDate INTEGER,
    appVersion TEXT,
    extVersion TEXT,
    domainStatus TEXT,
    reload INTEGER
);

-- Both dates are written at the moment of writing, in seconds since 1970
-- with fractions, so they are REAL.
CREATE TABLE SharedCustomRules (
    ruleID TEXT,
    blocker INTEGER,
    action INTEGER,
    selector TEXT,
    filter TEXT,
    resources TEXT,
    loads TEXT,
    domainType INTEGER,
    addDate REAL,
    blockerProfileID TEXT,
    ruleName TEXT,
    filterSensitive INTEGER,
    modDate REAL,
    regularExpression INTEGER,
    ruleType INTEGER,
    active INTEGER,
    filterDomain TEXT,
    filterInfo INTEGER,
    domains TEXT
);

-- The state of a fresh install, so that the extension works before the main
-- application has ever run. The versions stay NULL: no program has written
-- this row yet, and a template must not claim the version of a build.
INSERT INTO SharedData VALUES (
    'defaultProfile', '0,0', 'Default Profile', 'defaultProfile', '0',
    1, 0, NULL, NULL, '-1,-1,-1', 0
);
