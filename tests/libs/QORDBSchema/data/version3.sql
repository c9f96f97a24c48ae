PRAGMA foreign_keys=OFF;
BEGIN TRANSACTION;
CREATE TABLE qor_schema_version (version int NOT NULL PRIMARY KEY, mark nvarchar(64) NOT NULL, applied datetime NOT NULL);
INSERT INTO qor_schema_version VALUES(1,'QORPager host database','2024-03-01 00:00:00');
INSERT INTO qor_schema_version VALUES(2,'QORPager host database','2024-03-01 00:00:00');
INSERT INTO qor_schema_version VALUES(3,'QORPager host database','2024-03-01 00:00:00');
CREATE TABLE qor_environment (
    eid uniqueidentifier NOT NULL PRIMARY KEY,
    parent_eid uniqueidentifier,
    title nvarchar(255),
    state int NOT NULL,
    transition int NOT NULL,
    name nvarchar(255),
    description nvarchar,
    domain nvarchar(255),
    hostname nvarchar(255),
    architecture nvarchar(64),
    type nvarchar(64),
    os_name nvarchar(128),
    os_platform nvarchar(64),
    os_version nvarchar(64),
    os_kernel nvarchar(128),
    ip nvarchar(64),
    memory bigint,
    boot_time datetime,
    config nvarchar,
    virtual_config nvarchar,
    updated datetime NOT NULL,
    security_operation int GENERATED ALWAYS AS (1) VIRTUAL
);
INSERT INTO qor_environment VALUES('aaaaaaaa-0000-4000-8000-000000000001',NULL,'web 1',6,0,NULL,NULL,NULL,'web1',NULL,NULL,'Debian',NULL,NULL,NULL,'10.0.0.1',512,NULL,'<info><hostname>web1</hostname><ip>10.0.0.1</ip><ip>10.0.0.2</ip><os><name>Debian</name></os><memory>512</memory></info>','<info><ip>10.1.0.1</ip></info>','2024-03-01 00:00:00');
INSERT INTO qor_environment VALUES('bbbbbbbb-0000-4000-8000-000000000002','aaaaaaaa-0000-4000-8000-000000000001','shop',3,1,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,'2024-03-01 00:00:00');
CREATE TABLE qor_environment_address (
    eid uniqueidentifier NOT NULL REFERENCES qor_environment (eid) ON DELETE CASCADE,
    source int NOT NULL,
    position int NOT NULL,
    address nvarchar(64) NOT NULL,
    PRIMARY KEY (eid, source, position)
) WITHOUT ROWID;
INSERT INTO qor_environment_address VALUES('aaaaaaaa-0000-4000-8000-000000000001',0,0,'10.0.0.1');
INSERT INTO qor_environment_address VALUES('aaaaaaaa-0000-4000-8000-000000000001',0,1,'10.0.0.2');
INSERT INTO qor_environment_address VALUES('aaaaaaaa-0000-4000-8000-000000000001',1,0,'10.1.0.1');
CREATE TABLE qor_backup (
    seq INTEGER PRIMARY KEY,
    id nvarchar(128) NOT NULL UNIQUE,
    eid uniqueidentifier,
    storage_eid uniqueidentifier,
    time datetime NOT NULL,
    size bigint NOT NULL,
    type int NOT NULL,
    description nvarchar,
    name nvarchar(255),
    hostname nvarchar(255),
    info image,
    security_operation int GENERATED ALWAYS AS (4) VIRTUAL
);
INSERT INTO qor_backup VALUES(1,'a1','aaaaaaaa-0000-4000-8000-000000000001',NULL,'2024-02-29 12:00:00',1,0,NULL,'web','web1',X'3c696e666f3e3c7469746c653e7265706c616365643c2f7469746c653e3c2f696e666f3e');
INSERT INTO qor_backup VALUES(2,'a2','aaaaaaaa-0000-4000-8000-000000000001',NULL,'2024-02-29 12:00:01',2,1,'nightly',NULL,NULL,X'3c696e666f3e3c7469746c653e61206c6f6e6720736563726574206f662077656220312074686174206e6f626f647920656c7365206d6179206576657220726561643c2f7469746c653e3c2f696e666f3e');
INSERT INTO qor_backup VALUES(3,'b1','bbbbbbbb-0000-4000-8000-000000000002','aaaaaaaa-0000-4000-8000-000000000001','2024-02-29 12:00:02',3,0,NULL,NULL,NULL,X'3c696e666f3e3c7469746c653e623c2f7469746c653e3c2f696e666f3e0077656220312074686174206e6f626f647920656c7365206d6179206576657220726561643c2f7469746c653e3c2f696e666f3e');
INSERT INTO qor_backup VALUES(4,'b2','bbbbbbbb-0000-4000-8000-000000000002',NULL,'2024-02-29 12:00:03',4,0,NULL,NULL,NULL,NULL);
INSERT INTO qor_backup VALUES(5,'b3','bbbbbbbb-0000-4000-8000-000000000002',NULL,'2024-02-29 12:00:04',5,0,NULL,NULL,NULL,X'3c696e666f3e3c7469746c653e61206c6f6e67657220646f63756d656e74206f662073686f702773206f776e3c2f7469746c653e3c2f696e666f3e007220726561643c2f7469746c653e3c2f696e666f3e');
INSERT INTO qor_backup VALUES(6,'b4','bbbbbbbb-0000-4000-8000-000000000002',NULL,'2024-02-29 12:00:05',6,0,NULL,NULL,NULL,X'3c696e666f2f3e0069746c653e61206c6f6e67657220646f63756d656e74206f662073686f702773206f776e3c2f7469746c653e3c2f696e666f3e007220726561643c2f7469746c653e3c2f696e666f3e');
INSERT INTO qor_backup VALUES(7,'b5','bbbbbbbb-0000-4000-8000-000000000002',NULL,'2024-02-29 12:00:06',7,0,NULL,NULL,NULL,X'3c696e666f3e3c6e616d653ec3a97175616c207469746c65206465633c2f6e616d653e3c2f696e666f3e006e3c2f7469746c653e3c2f696e666f3e007220726561643c2f7469746c653e3c2f696e666f3e');
INSERT INTO qor_backup VALUES(8,'b6','bbbbbbbb-0000-4000-8000-000000000002',NULL,'2024-02-29 12:00:07',8,0,NULL,NULL,NULL,X'3c696e666f3e3c7469746c653e6120646f63756d656e74206f662073686f7020746861742069732061206c6974746c65206c6f6e676572207468616e2074686174207365637265743c2f7469746c653e3c');
INSERT INTO qor_backup VALUES(9,'b7','bbbbbbbb-0000-4000-8000-000000000002',NULL,'2024-02-29 12:00:08',9,0,NULL,NULL,NULL,X'3c696e666f3e3c7469746c653e74686520646f63756d656e74206f662073686f70207768696368206973206e6561726c79206173206c6f6e67206173206d61792066697420696e3c2f7469746c653e3c2f');
INSERT INTO qor_backup VALUES(10,'b8','bbbbbbbb-0000-4000-8000-000000000002',NULL,'2024-02-29 12:00:09',10,0,NULL,NULL,NULL,X'3c696e666f3e3c6e6f74653e266c743b696e666f2667743b266c743b7469746c652667743b78266c743b2f7469746c652667743b266c743b2f696e666f2667743b3c2f6e6f74653e3c2f696e666f3e002f');
INSERT INTO qor_backup VALUES(11,'b9','bbbbbbbb-0000-4000-8000-000000000002',NULL,'2024-02-29 12:00:10',11,0,NULL,NULL,NULL,X'3c696e666f3e3c6c6973743e313c2f6c6973743e3c6c6973743e323c2f6c6973743e3c6c6973743e3c646565703e7965733c2f646565703e3c2f6c6973743e3c6e756c20656e636f64696e673d22626173653634223e595142693c2f6e756c3e3c2f696e666f3e');
INSERT INTO qor_backup VALUES(12,'b10','bbbbbbbb-0000-4000-8000-000000000002',NULL,'2024-02-29 12:00:11',12,0,NULL,NULL,NULL,X'3c696e666f3e3c6e616d653e73686f72743c2f6e616d653e3c2f696e666f3e');
CREATE TABLE qor_operation (
    seq INTEGER PRIMARY KEY,
    id nvarchar(128) NOT NULL UNIQUE,
    parent_id nvarchar(128),
    op nvarchar(128),
    status int NOT NULL,
    time datetime NOT NULL,
    eid uniqueidentifier,
    package nvarchar(255),
    version nvarchar(128),
    message nvarchar,
    security_operation int GENERATED ALWAYS AS (2) VIRTUAL
);
INSERT INTO qor_operation VALUES(1,'op-1',NULL,'install',0,'2024-02-29 12:00:00','aaaaaaaa-0000-4000-8000-000000000001','curl','7.88','<info><package><name>curl</name><version>7.88</version></package></info>');
INSERT INTO qor_operation VALUES(2,'op-2','op-1','upgrade',1,'2024-02-29 12:00:05','bbbbbbbb-0000-4000-8000-000000000002',NULL,NULL,'<info><param name="1st" encoding="base64">YSABIGI=</param><text>&lt;&amp;&gt;</text></info>');
INSERT INTO qor_operation VALUES(3,'op-3',NULL,NULL,0,'2024-03-01 00:00:00',NULL,NULL,NULL,NULL);
CREATE TABLE qor_operation_environment (
    operation bigint NOT NULL REFERENCES qor_operation (seq) ON DELETE CASCADE,
    position int NOT NULL,
    eid uniqueidentifier NOT NULL,
    time datetime NOT NULL,
    PRIMARY KEY (operation, position)
) WITHOUT ROWID;
INSERT INTO qor_operation_environment VALUES(1,-1,'aaaaaaaa-0000-4000-8000-000000000001','2024-02-29 12:00:00');
INSERT INTO qor_operation_environment VALUES(2,0,'aaaaaaaa-0000-4000-8000-000000000001','2024-02-29 12:00:05');
INSERT INTO qor_operation_environment VALUES(2,1,'bbbbbbbb-0000-4000-8000-000000000002','2024-02-29 12:00:05');
CREATE TABLE qor_event (
    seq INTEGER PRIMARY KEY,
    id bigint GENERATED ALWAYS AS (seq) VIRTUAL,
    time datetime NOT NULL,
    eid uniqueidentifier,
    source nvarchar(255),
    category nvarchar(128),
    info nvarchar,
    security_operation int GENERATED ALWAYS AS (3) VIRTUAL
);
INSERT INTO qor_event VALUES(1,'2024-02-29 12:00:00','aaaaaaaa-0000-4000-8000-000000000001','agent','env_status','<info><new_state>6</new_state></info>');
INSERT INTO qor_event VALUES(2,'2024-02-29 12:00:01',NULL,'monitor','resource_alert','<info><resource>memory</resource><used>1987</used></info>');
INSERT INTO qor_event VALUES(3,'2024-02-29 12:00:02',NULL,NULL,NULL,NULL);
CREATE TABLE qor_operation_count (
    scope nvarchar NOT NULL,
    level int NOT NULL,
    bucket bigint NOT NULL,
    n bigint NOT NULL,
    split int NOT NULL DEFAULT 0,
    PRIMARY KEY (scope, level, bucket)
) WITHOUT ROWID;
INSERT INTO qor_operation_count VALUES('',24,101,3,0);
INSERT INTO qor_operation_count VALUES('+aaaaaaaa-0000-4000-8000-000000000001 bbbbbbbb-0000-4000-8000-000000000002',24,101,1,0);
INSERT INTO qor_operation_count VALUES('aaaaaaaa-0000-4000-8000-000000000001',24,101,2,0);
INSERT INTO qor_operation_count VALUES('bbbbbbbb-0000-4000-8000-000000000002',24,101,1,0);
CREATE TABLE qor_event_count (
    scope nvarchar NOT NULL,
    level int NOT NULL,
    bucket bigint NOT NULL,
    n bigint NOT NULL,
    split int NOT NULL DEFAULT 0,
    PRIMARY KEY (scope, level, bucket)
) WITHOUT ROWID;
INSERT INTO qor_event_count VALUES('/env_status',24,101,1,0);
INSERT INTO qor_event_count VALUES('/resource_alert',24,101,1,0);
INSERT INTO qor_event_count VALUES('aaaaaaaa-0000-4000-8000-000000000001/env_status',24,101,1,0);
CREATE TABLE qor_operation_scope (
    eid uniqueidentifier NOT NULL,
    scope nvarchar NOT NULL,
    PRIMARY KEY (eid, scope)
) WITHOUT ROWID;
INSERT INTO qor_operation_scope VALUES('aaaaaaaa-0000-4000-8000-000000000001','+aaaaaaaa-0000-4000-8000-000000000001 bbbbbbbb-0000-4000-8000-000000000002');
INSERT INTO qor_operation_scope VALUES('bbbbbbbb-0000-4000-8000-000000000002','+aaaaaaaa-0000-4000-8000-000000000001 bbbbbbbb-0000-4000-8000-000000000002');
CREATE VIEW "SchemaTable" AS SELECT m.name AS "viewName", c.name AS "name", lower(trim(CASE WHEN instr(c.type, '(') > 0 THEN substr(c.type, 1, instr(c.type, '(') - 1) ELSE c.type END)) AS "type", CASE WHEN instr(c.type, '(') > 0 AND CAST(substr(c.type, instr(c.type, '(') + 1) AS INTEGER) BETWEEN 0 AND 2147483647 THEN CAST(substr(c.type, instr(c.type, '(') + 1) AS INTEGER) ELSE 0 END AS "length", 'UTF-8' AS "charSet", 'BINARY' AS "collation", c.cid AS "position" FROM sqlite_master m JOIN pragma_table_info(m.name) c WHERE m.type = 'view' AND lower(m.name) <> 'schematable' ORDER BY m.name, c.cid;
CREATE INDEX qor_environment_parent ON qor_environment (parent_eid);
CREATE INDEX qor_environment_hostname ON qor_environment (hostname);
CREATE INDEX qor_environment_address_address ON qor_environment_address (address);
CREATE INDEX qor_backup_time ON qor_backup (time);
CREATE INDEX qor_backup_eid ON qor_backup (eid, time);
CREATE INDEX qor_backup_storage ON qor_backup (storage_eid, time);
CREATE VIEW "vEnvironment" AS SELECT
    eid, parent_eid, title, state, transition, name, description, domain, hostname, architecture, type,
    os_name, os_platform, os_version, os_kernel, ip, memory, boot_time, config, virtual_config, updated,
    security_operation AS "securityOperation_1", eid AS "securableObjId"
FROM qor_environment;
CREATE VIEW "vBackupInfo" AS SELECT
    id, eid, storage_eid, time, size, type, description, name, hostname, info,
    security_operation AS "securityOperation_4", eid AS "securableObjId"
FROM qor_backup;
CREATE INDEX qor_operation_time ON qor_operation (time);
CREATE INDEX qor_operation_eid ON qor_operation (eid, time);
CREATE INDEX qor_operation_environment_eid ON qor_operation_environment (eid, time, operation);
CREATE INDEX qor_event_id ON qor_event (id);
CREATE INDEX qor_event_time ON qor_event (time);
CREATE INDEX qor_event_eid ON qor_event (eid, time);
CREATE INDEX qor_event_category ON qor_event (category, time);
CREATE VIEW "vOpLog" AS SELECT
    id, parent_id, op, status, time, eid, package, version, message,
    security_operation AS "securityOperation_2", eid AS "securableObjId"
FROM qor_operation;
CREATE VIEW "vEventLog" AS SELECT
    id, time, eid, source, category, info,
    security_operation AS "securityOperation_3", eid AS "securableObjId"
FROM qor_event;
CREATE INDEX qor_event_category_eid ON qor_event (category, eid, time);
COMMIT;
