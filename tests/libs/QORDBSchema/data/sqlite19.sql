PRAGMA foreign_keys=OFF;
BEGIN TRANSACTION;
CREATE TABLE qor_schema_version (version int NOT NULL PRIMARY KEY, mark nvarchar(64) NOT NULL, applied datetime NOT NULL);
INSERT INTO qor_schema_version VALUES(1,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(2,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(3,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(4,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(5,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(6,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(7,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(8,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(9,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(10,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(11,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(12,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(13,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(14,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(15,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(16,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(17,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(18,'QORPager host database','2026-11-24 16:23:58');
INSERT INTO qor_schema_version VALUES(19,'QORPager host database','2026-11-24 16:23:58');
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
, reporter nvarchar(255));
INSERT INTO qor_environment VALUES('00000001-0000-4000-8000-000000000000','00000001-0000-4000-8000-000000000000','environment 1 of 9',6,0,'web',NULL,NULL,'web1',NULL,NULL,'Debian',NULL,NULL,NULL,'10.0.0.1',NULL,NULL,'<info><name>web</name><hostname>web1</hostname><os><name>Debian</name></os><ip>10.0.0.1</ip><ip>10.0.1.1</ip></info>',NULL,'2026-11-24 16:23:58','machine');
INSERT INTO qor_environment VALUES('00000002-0000-4000-8000-000000000000','00000001-0000-4000-8000-000000000000','environment 2 of 9',6,0,'web',NULL,NULL,'web2',NULL,NULL,'Debian',NULL,NULL,NULL,'10.0.0.2',NULL,NULL,'<info><name>web</name><hostname>web2</hostname><os><name>Debian</name></os><ip>10.0.0.2</ip><ip>10.0.1.2</ip></info>',NULL,'2026-11-24 16:23:58','machine');
INSERT INTO qor_environment VALUES('00000003-0000-4000-8000-000000000000','00000001-0000-4000-8000-000000000000','environment 3 of 9',6,0,'web',NULL,NULL,'web3',NULL,NULL,'Debian',NULL,NULL,NULL,'10.0.0.3',NULL,NULL,'<info><name>web</name><hostname>web3</hostname><os><name>Debian</name></os><ip>10.0.0.3</ip><ip>10.0.1.3</ip></info>',NULL,'2026-11-24 16:23:58','machine');
CREATE TABLE qor_environment_address (
    eid uniqueidentifier NOT NULL REFERENCES qor_environment (eid) ON DELETE CASCADE,
    source int NOT NULL,
    position int NOT NULL,
    address nvarchar(64) NOT NULL,
    PRIMARY KEY (eid, source, position)
) WITHOUT ROWID;
INSERT INTO qor_environment_address VALUES('00000001-0000-4000-8000-000000000000',0,0,'10.0.0.1');
INSERT INTO qor_environment_address VALUES('00000002-0000-4000-8000-000000000000',0,0,'10.0.0.2');
INSERT INTO qor_environment_address VALUES('00000003-0000-4000-8000-000000000000',0,0,'10.0.0.3');
INSERT INTO qor_environment_address VALUES('00000001-0000-4000-8000-000000000000',0,1,'10.0.1.1');
INSERT INTO qor_environment_address VALUES('00000002-0000-4000-8000-000000000000',0,1,'10.0.1.2');
INSERT INTO qor_environment_address VALUES('00000003-0000-4000-8000-000000000000',0,1,'10.0.1.3');
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
, reporter nvarchar(255));
INSERT INTO qor_backup VALUES(1,'backup 1','00000002-0000-4000-8000-000000000000','00000003-0000-4000-8000-000000000000','2023-11-14 22:13:20',9000000000,1,'nightly','web','web2',X'3c696e666f3e3c766569643e3130313c2f766569643e3c7469746c653e6120227469746c65223c2f7469746c653e3c2f696e666f3e','machine');
INSERT INTO qor_backup VALUES(2,'backup 2',NULL,NULL,'2023-11-14 22:13:20',0,0,NULL,NULL,NULL,X'3c696e666f2f3e','machine');
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
, reporter nvarchar(255));
INSERT INTO qor_operation VALUES(1,'op 1',NULL,'install',1,'2023-11-15 00:10:00','00000002-0000-4000-8000-000000000000','libc1','2.9','<info><package><name>libc1</name><version>2.9</version></package></info>','machine');
INSERT INTO qor_operation VALUES(2,'op 2',NULL,'install',2,'2023-11-15 02:06:40','00000003-0000-4000-8000-000000000000','libc2','2.9','<info><package><name>libc2</name><version>2.9</version></package></info>','machine');
INSERT INTO qor_operation VALUES(3,'op 3',NULL,'install',0,'2023-11-15 04:03:20','00000001-0000-4000-8000-000000000000','libc3','2.9','<info><package><name>libc3</name><version>2.9</version></package></info>','machine');
INSERT INTO qor_operation VALUES(4,'op 4',NULL,'install',1,'2023-11-15 06:00:00','00000002-0000-4000-8000-000000000000','libc4','2.9','<info><package><name>libc4</name><version>2.9</version></package></info>','machine');
INSERT INTO qor_operation VALUES(5,'op 5',NULL,'install',2,'2023-11-15 07:56:40','00000003-0000-4000-8000-000000000000','libc5','2.9','<info><package><name>libc5</name><version>2.9</version></package></info>','machine');
INSERT INTO qor_operation VALUES(6,'op 6',NULL,'install',0,'2023-11-15 09:53:20','00000001-0000-4000-8000-000000000000','libc6','2.9','<info><package><name>libc6</name><version>2.9</version></package></info>','machine');
INSERT INTO qor_operation VALUES(7,'op 7',NULL,'install',1,'2023-11-15 11:50:00','00000002-0000-4000-8000-000000000000','libc7','2.9','<info><package><name>libc7</name><version>2.9</version></package></info>','machine');
INSERT INTO qor_operation VALUES(8,'op 8',NULL,'install',2,'2023-11-15 13:46:40','00000003-0000-4000-8000-000000000000','libc8','2.9','<info><package><name>libc8</name><version>2.9</version></package></info>','machine');
INSERT INTO qor_operation VALUES(9,'op 9',NULL,'install',0,'2023-11-15 15:43:20','00000001-0000-4000-8000-000000000000','libc9','2.9','<info><package><name>libc9</name><version>2.9</version></package></info>','machine');
CREATE TABLE qor_event (
    seq INTEGER PRIMARY KEY,
    id bigint GENERATED ALWAYS AS (seq) VIRTUAL,
    time datetime NOT NULL,
    eid uniqueidentifier,
    source nvarchar(255),
    category nvarchar(128),
    info nvarchar,
    security_operation int GENERATED ALWAYS AS (3) VIRTUAL
, uid uniqueidentifier, reporter nvarchar(255));
INSERT INTO qor_event VALUES(1,'2023-11-15 00:43:20','00000001-0000-4000-8000-000000000000','kernel','device','<info><n>1</n></info>',NULL,NULL);
INSERT INTO qor_event VALUES(2,'2023-11-15 03:13:20','00000002-0000-4000-8000-000000000000','kernel','device','<info><n>2</n></info>',NULL,NULL);
INSERT INTO qor_event VALUES(3,'2023-11-15 05:43:20','00000003-0000-4000-8000-000000000000','kernel','device','<info><n>3</n></info>',NULL,NULL);
INSERT INTO qor_event VALUES(4,'2023-11-15 08:13:20','00000000-0000-4000-8000-000000000000','kernel','device','<info><n>4</n></info>',NULL,NULL);
INSERT INTO qor_event VALUES(5,'2023-11-15 10:43:20','00000001-0000-4000-8000-000000000000','kernel','device','<info><n>5</n></info>',NULL,NULL);
INSERT INTO qor_event VALUES(6,'2023-11-15 13:13:20','00000002-0000-4000-8000-000000000000','kernel','device','<info><n>6</n></info>',NULL,NULL);
INSERT INTO qor_event VALUES(7,'2023-11-15 00:43:20','00000001-0000-4000-8000-000000000000','kernel','device','<info><n>1</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(8,'2023-11-15 03:13:20','00000002-0000-4000-8000-000000000000','kernel','device','<info><n>2</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(9,'2023-11-15 05:43:20','00000003-0000-4000-8000-000000000000','kernel','device','<info><n>3</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(10,'2023-11-15 08:13:20','00000000-0000-4000-8000-000000000000','kernel','device','<info><n>4</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(11,'2023-11-15 10:43:20','00000001-0000-4000-8000-000000000000','kernel','device','<info><n>5</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(12,'2023-11-15 13:13:20','00000002-0000-4000-8000-000000000000','kernel','device','<info><n>6</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(13,'2023-11-15 15:43:20','00000003-0000-4000-8000-000000000000','kernel','device','<info><n>7</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(14,'2023-11-15 18:13:20','00000000-0000-4000-8000-000000000000','kernel','device','<info><n>8</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(15,'2023-11-15 00:43:20','00000001-0000-4000-8000-000000000000','kernel','device','<info><n>1</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(16,'2023-11-15 03:13:20','00000002-0000-4000-8000-000000000000','kernel','device','<info><n>2</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(17,'2023-11-15 05:43:20','00000003-0000-4000-8000-000000000000','kernel','device','<info><n>3</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(18,'2023-11-15 08:13:20','00000000-0000-4000-8000-000000000000','kernel','device','<info><n>4</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(19,'2023-11-15 10:43:20','00000001-0000-4000-8000-000000000000','kernel','device','<info><n>5</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(20,'2023-11-15 13:13:20','00000002-0000-4000-8000-000000000000','kernel','device','<info><n>6</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(21,'2023-11-15 15:43:20','00000003-0000-4000-8000-000000000000','kernel','device','<info><n>7</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(22,'2023-11-15 18:13:20','00000000-0000-4000-8000-000000000000','kernel','device','<info><n>8</n></info>',NULL,'machine');
INSERT INTO qor_event VALUES(23,'2023-11-15 20:43:20','00000001-0000-4000-8000-000000000000','kernel','device','<info><n>9</n></info>',NULL,'machine');
CREATE TABLE qor_operation_count (
    scope nvarchar NOT NULL,
    level int NOT NULL,
    bucket bigint NOT NULL,
    n bigint NOT NULL,
    split int NOT NULL DEFAULT 0,
    PRIMARY KEY (scope, level, bucket)
) WITHOUT ROWID;
INSERT INTO qor_operation_count VALUES('',24,101,9,0);
INSERT INTO qor_operation_count VALUES('00000001-0000-4000-8000-000000000000',24,101,3,0);
INSERT INTO qor_operation_count VALUES('00000002-0000-4000-8000-000000000000',24,101,3,0);
INSERT INTO qor_operation_count VALUES('00000002-0000-4000-8000-000000000000>00000001-0000-4000-8000-000000000000',24,101,3,0);
INSERT INTO qor_operation_count VALUES('00000003-0000-4000-8000-000000000000',24,101,3,0);
INSERT INTO qor_operation_count VALUES('00000003-0000-4000-8000-000000000000>00000001-0000-4000-8000-000000000000',24,101,3,0);
INSERT INTO qor_operation_count VALUES('>00000001-0000-4000-8000-000000000000',24,101,6,0);
CREATE TABLE qor_event_count (
    scope nvarchar NOT NULL,
    level int NOT NULL,
    bucket bigint NOT NULL,
    n bigint NOT NULL,
    split int NOT NULL DEFAULT 0,
    PRIMARY KEY (scope, level, bucket)
) WITHOUT ROWID;
INSERT INTO qor_event_count VALUES('/device',24,101,23,0);
INSERT INTO qor_event_count VALUES('00000000-0000-4000-8000-000000000000/device',24,101,5,0);
INSERT INTO qor_event_count VALUES('00000001-0000-4000-8000-000000000000/device',24,101,7,0);
INSERT INTO qor_event_count VALUES('00000002-0000-4000-8000-000000000000/device',24,101,6,0);
INSERT INTO qor_event_count VALUES('00000003-0000-4000-8000-000000000000/device',24,101,5,0);
CREATE TABLE qor_unreadable_document (
    source nvarchar(64) NOT NULL,
    part nvarchar(64) NOT NULL,
    record NOT NULL,
    PRIMARY KEY (source, part, record)
) WITHOUT ROWID;
CREATE TABLE qor_operation_environment (
    operation bigint NOT NULL REFERENCES qor_operation (seq) ON DELETE CASCADE,
    eid uniqueidentifier NOT NULL,
    position int NOT NULL DEFAULT 0,
    own uniqueidentifier,
    time datetime NOT NULL DEFAULT '',
    PRIMARY KEY (operation, eid)
) WITHOUT ROWID;
INSERT INTO qor_operation_environment VALUES(1,'00000001-0000-4000-8000-000000000000',0,'00000002-0000-4000-8000-000000000000','2023-11-15 00:10:00');
INSERT INTO qor_operation_environment VALUES(1,'00000002-0000-4000-8000-000000000000',1,'00000002-0000-4000-8000-000000000000','2023-11-15 00:10:00');
INSERT INTO qor_operation_environment VALUES(2,'00000001-0000-4000-8000-000000000000',0,'00000003-0000-4000-8000-000000000000','2023-11-15 02:06:40');
INSERT INTO qor_operation_environment VALUES(2,'00000003-0000-4000-8000-000000000000',1,'00000003-0000-4000-8000-000000000000','2023-11-15 02:06:40');
INSERT INTO qor_operation_environment VALUES(3,'00000001-0000-4000-8000-000000000000',0,'00000001-0000-4000-8000-000000000000','2023-11-15 04:03:20');
INSERT INTO qor_operation_environment VALUES(4,'00000001-0000-4000-8000-000000000000',0,'00000002-0000-4000-8000-000000000000','2023-11-15 06:00:00');
INSERT INTO qor_operation_environment VALUES(4,'00000002-0000-4000-8000-000000000000',1,'00000002-0000-4000-8000-000000000000','2023-11-15 06:00:00');
INSERT INTO qor_operation_environment VALUES(5,'00000001-0000-4000-8000-000000000000',0,'00000003-0000-4000-8000-000000000000','2023-11-15 07:56:40');
INSERT INTO qor_operation_environment VALUES(5,'00000003-0000-4000-8000-000000000000',1,'00000003-0000-4000-8000-000000000000','2023-11-15 07:56:40');
INSERT INTO qor_operation_environment VALUES(6,'00000001-0000-4000-8000-000000000000',0,'00000001-0000-4000-8000-000000000000','2023-11-15 09:53:20');
INSERT INTO qor_operation_environment VALUES(7,'00000001-0000-4000-8000-000000000000',0,'00000002-0000-4000-8000-000000000000','2023-11-15 11:50:00');
INSERT INTO qor_operation_environment VALUES(7,'00000002-0000-4000-8000-000000000000',1,'00000002-0000-4000-8000-000000000000','2023-11-15 11:50:00');
INSERT INTO qor_operation_environment VALUES(8,'00000001-0000-4000-8000-000000000000',0,'00000003-0000-4000-8000-000000000000','2023-11-15 13:46:40');
INSERT INTO qor_operation_environment VALUES(8,'00000003-0000-4000-8000-000000000000',1,'00000003-0000-4000-8000-000000000000','2023-11-15 13:46:40');
INSERT INTO qor_operation_environment VALUES(9,'00000001-0000-4000-8000-000000000000',0,'00000001-0000-4000-8000-000000000000','2023-11-15 15:43:20');
CREATE TABLE qor_log_replaced (kind int NOT NULL, seq bigint NOT NULL, time datetime, eid uniqueidentifier, own uniqueidentifier, category nvarchar);
CREATE TABLE qor_operation_change (scope nvarchar NOT NULL, second bigint NOT NULL, change int NOT NULL);
CREATE TABLE qor_event_change (scope nvarchar NOT NULL, second bigint NOT NULL, change int NOT NULL);
CREATE TABLE qor_request (
    key nvarchar(255) NOT NULL PRIMARY KEY,
    digest char(64) NOT NULL,
    last_line bigint NOT NULL,
    result longtext NOT NULL,
    time bigint NOT NULL
);
INSERT INTO qor_request VALUES('request-8','d45c0fd9b78ef8814016262d9469ea8012617c3a70a14cf2381f46f664733b24',21,'{"counts":[[0,3,0],[2,6,0],[8,0,0],[0,2,0]],"refused":0,"lines":[]}',1795537438);
INSERT INTO qor_request VALUES('request-9','dffa75dd39563933f7af1b8015ef5c0ad9c3d1d6319b11b4e798c389acb4d00b',23,'{"counts":[[0,3,0],[1,8,0],[9,0,0],[0,2,0]],"refused":0,"lines":[]}',1795537438);
CREATE TABLE qor_database (id char(32) NOT NULL);
INSERT INTO qor_database VALUES('f30954c983f0c658324666d96b34b821');
CREATE TABLE qor_change (n bigint NOT NULL);
INSERT INTO qor_change VALUES(3);
CREATE TABLE qor_environment_change (n integer NOT NULL PRIMARY KEY, environments longtext);
INSERT INTO qor_environment_change VALUES(0,'');
INSERT INTO qor_environment_change VALUES(1,'00000001-0000-4000-8000-000000000000 00000002-0000-4000-8000-000000000000 00000003-0000-4000-8000-000000000000');
INSERT INTO qor_environment_change VALUES(2,'00000001-0000-4000-8000-000000000000 00000002-0000-4000-8000-000000000000 00000003-0000-4000-8000-000000000000');
INSERT INTO qor_environment_change VALUES(3,'00000001-0000-4000-8000-000000000000 00000002-0000-4000-8000-000000000000 00000003-0000-4000-8000-000000000000');
CREATE TABLE qor_identity (
    name nvarchar(255) NOT NULL PRIMARY KEY,
    kind int NOT NULL,
    subject nvarchar(255) NOT NULL,
    full_access int NOT NULL,
    UNIQUE (kind, subject)
);
INSERT INTO qor_identity VALUES('machine',3,'machine',1);
CREATE TABLE qor_identity_environment (
    name nvarchar(255) NOT NULL,
    position int NOT NULL,
    eid uniqueidentifier NOT NULL,
    below int NOT NULL, writes int NOT NULL DEFAULT 0,
    PRIMARY KEY (name, position)
);
CREATE TABLE qor_token (
    digest char(64) NOT NULL PRIMARY KEY,
    name nvarchar(255) NOT NULL,
    created bigint NOT NULL,
    expires bigint,
    last_use bigint
);
INSERT INTO qor_token VALUES('e577b65e23f1e3838b70968be82e7ccaccf6675c32df4dfd0d55af25cacb79fc','machine',1795537438,NULL,1795537438);
CREATE TABLE qor_identity_change (n bigint NOT NULL);
INSERT INTO qor_identity_change VALUES(2);
CREATE TABLE qor_secret (purpose nvarchar(64) NOT NULL PRIMARY KEY, secret char(64) NOT NULL);
INSERT INTO qor_secret VALUES('pages','cbb0f9a505bee3116f20fccafe104c579f9ebb96c16f02466e17d390f7fb0592');
CREATE TABLE qor_record_number (n bigint NOT NULL);
INSERT INTO qor_record_number VALUES(61);
CREATE TABLE qor_record_change (n INTEGER NOT NULL PRIMARY KEY, kind int NOT NULL, first bigint NOT NULL, last bigint NOT NULL, eid uniqueidentifier);
INSERT INTO qor_record_change VALUES(1,0,0,0,'00000001-0000-4000-8000-000000000000');
INSERT INTO qor_record_change VALUES(2,0,0,0,'00000002-0000-4000-8000-000000000000');
INSERT INTO qor_record_change VALUES(3,0,0,0,'00000003-0000-4000-8000-000000000000');
INSERT INTO qor_record_change VALUES(4,1,1,6,NULL);
INSERT INTO qor_record_change VALUES(10,2,1,6,NULL);
INSERT INTO qor_record_change VALUES(16,3,1,2,NULL);
INSERT INTO qor_record_change VALUES(18,0,0,0,'00000001-0000-4000-8000-000000000000');
INSERT INTO qor_record_change VALUES(19,0,0,0,'00000002-0000-4000-8000-000000000000');
INSERT INTO qor_record_change VALUES(20,0,0,0,'00000003-0000-4000-8000-000000000000');
INSERT INTO qor_record_change VALUES(21,1,1,8,NULL);
INSERT INTO qor_record_change VALUES(29,2,7,14,NULL);
INSERT INTO qor_record_change VALUES(37,3,1,2,NULL);
INSERT INTO qor_record_change VALUES(39,0,0,0,'00000001-0000-4000-8000-000000000000');
INSERT INTO qor_record_change VALUES(40,0,0,0,'00000002-0000-4000-8000-000000000000');
INSERT INTO qor_record_change VALUES(41,0,0,0,'00000003-0000-4000-8000-000000000000');
INSERT INTO qor_record_change VALUES(42,1,1,9,NULL);
INSERT INTO qor_record_change VALUES(51,2,15,23,NULL);
INSERT INTO qor_record_change VALUES(60,3,1,2,NULL);
CREATE TABLE qor_forward_stream (id uniqueidentifier NOT NULL PRIMARY KEY) WITHOUT ROWID;
CREATE TABLE qor_forward_position (
    target nvarchar(255) NOT NULL,
    server nvarchar(128) NOT NULL,
    n bigint NOT NULL,
    PRIMARY KEY (target, server)
);
CREATE TABLE qor_forward_refused (
    target nvarchar(255) NOT NULL,
    server nvarchar(128) NOT NULL,
    kind int NOT NULL,
    id nvarchar(128) NOT NULL,
    reason nvarchar NOT NULL,
    time bigint NOT NULL,
    PRIMARY KEY (target, server, kind, id)
);
CREATE TABLE qor_ended_session (
    id char(32) NOT NULL PRIMARY KEY,
    expires bigint NOT NULL
) WITHOUT ROWID;
CREATE TABLE qor_collector_position (
    machine uniqueidentifier NOT NULL,
    collector nvarchar(64) NOT NULL,
    position nvarchar NOT NULL,
    PRIMARY KEY (machine, collector)
) WITHOUT ROWID;
CREATE VIEW "SchemaTable" AS SELECT m.name AS "viewName", c.name AS "name", lower(trim(CASE WHEN instr(c.type, '(') > 0 THEN substr(c.type, 1, instr(c.type, '(') - 1) ELSE c.type END)) AS "type", CASE WHEN instr(c.type, '(') > 0 AND CAST(substr(c.type, instr(c.type, '(') + 1) AS INTEGER) BETWEEN 0 AND 2147483647 THEN CAST(substr(c.type, instr(c.type, '(') + 1) AS INTEGER) ELSE 0 END AS "length", 'UTF-8' AS "charSet", 'BINARY' AS "collation", c.cid AS "position" FROM sqlite_master m JOIN pragma_table_info(m.name) c WHERE m.type = 'view' AND lower(m.name) <> 'schematable' ORDER BY m.name, c.cid;
CREATE INDEX qor_environment_parent ON qor_environment (parent_eid);
CREATE INDEX qor_environment_hostname ON qor_environment (hostname);
CREATE INDEX qor_environment_address_address ON qor_environment_address (address);
CREATE INDEX qor_backup_time ON qor_backup (time);
CREATE INDEX qor_backup_eid ON qor_backup (eid, time);
CREATE INDEX qor_backup_storage ON qor_backup (storage_eid, time);
CREATE INDEX qor_operation_time ON qor_operation (time);
CREATE INDEX qor_operation_eid ON qor_operation (eid, time);
CREATE INDEX qor_event_id ON qor_event (id);
CREATE INDEX qor_event_time ON qor_event (time);
CREATE INDEX qor_event_eid ON qor_event (eid, time);
CREATE INDEX qor_event_category ON qor_event (category, time);
CREATE INDEX qor_event_category_eid ON qor_event (category, eid, time);
CREATE TRIGGER qor_config_replaced AFTER UPDATE OF config ON qor_environment BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_environment' AND part = 'config' AND record = OLD.eid; END;
CREATE TRIGGER qor_virtual_config_replaced AFTER UPDATE OF virtual_config ON qor_environment BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_environment' AND part = 'virtual_config' AND record = OLD.eid; END;
CREATE TRIGGER qor_environment_documents_removed AFTER DELETE ON qor_environment BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_environment' AND part IN ('config', 'virtual_config') AND record = OLD.eid; END;
CREATE TRIGGER qor_message_replaced AFTER UPDATE OF message ON qor_operation BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_operation' AND part = 'message' AND record = OLD.seq; END;
CREATE TRIGGER qor_message_removed AFTER DELETE ON qor_operation BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_operation' AND part = 'message' AND record = OLD.seq; END;
CREATE TRIGGER qor_event_info_replaced AFTER UPDATE OF info ON qor_event BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_event' AND part = 'info' AND record = OLD.seq; END;
CREATE TRIGGER qor_event_info_removed AFTER DELETE ON qor_event BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_event' AND part = 'info' AND record = OLD.seq; END;
CREATE TRIGGER qor_backup_info_replaced AFTER UPDATE OF info ON qor_backup BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_backup' AND part = 'info' AND record = OLD.seq; END;
CREATE TRIGGER qor_backup_info_removed AFTER DELETE ON qor_backup BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_backup' AND part = 'info' AND record = OLD.seq; END;
CREATE INDEX qor_operation_environment_touched ON qor_operation_environment (eid, time, operation) WHERE eid IS NOT own;
CREATE INDEX qor_operation_environment_pair ON qor_operation_environment (eid, own, time, operation) WHERE eid <> own;
CREATE TRIGGER qor_operation_change_made AFTER INSERT ON qor_operation_change BEGIN INSERT INTO qor_operation_count (scope, level, bucket, n) SELECT NEW.scope, l.level, NEW.second >> l.level, 1 FROM (SELECT 24 AS level UNION ALL SELECT 20 UNION ALL SELECT 16 UNION ALL SELECT 12 UNION ALL SELECT 8 UNION ALL SELECT 4 UNION ALL SELECT 0) l WHERE NEW.change > 0 AND (l.level = 24 OR EXISTS (SELECT 1 FROM qor_operation_count p WHERE p.scope = NEW.scope AND p.level = l.level + 4 AND p.bucket = NEW.second >> (l.level + 4) AND p.split = 1)) ON CONFLICT (scope, level, bucket) DO UPDATE SET n = n + 1; UPDATE qor_operation_count SET n = n - 1 WHERE NEW.change < 0 AND scope = NEW.scope AND (level, bucket) IN (SELECT l.level, NEW.second >> l.level FROM (SELECT 24 AS level UNION ALL SELECT 20 UNION ALL SELECT 16 UNION ALL SELECT 12 UNION ALL SELECT 8 UNION ALL SELECT 4 UNION ALL SELECT 0) l); DELETE FROM qor_operation_change WHERE rowid = NEW.rowid; END;
CREATE TRIGGER qor_operation_count_empty AFTER UPDATE OF n ON qor_operation_count WHEN NEW.n = 0 BEGIN DELETE FROM qor_operation_count WHERE scope = NEW.scope AND level = NEW.level AND bucket = NEW.bucket; END;
CREATE TRIGGER qor_event_change_made AFTER INSERT ON qor_event_change BEGIN INSERT INTO qor_event_count (scope, level, bucket, n) SELECT NEW.scope, l.level, NEW.second >> l.level, 1 FROM (SELECT 24 AS level UNION ALL SELECT 20 UNION ALL SELECT 16 UNION ALL SELECT 12 UNION ALL SELECT 8 UNION ALL SELECT 4 UNION ALL SELECT 0) l WHERE NEW.change > 0 AND (l.level = 24 OR EXISTS (SELECT 1 FROM qor_event_count p WHERE p.scope = NEW.scope AND p.level = l.level + 4 AND p.bucket = NEW.second >> (l.level + 4) AND p.split = 1)) ON CONFLICT (scope, level, bucket) DO UPDATE SET n = n + 1; UPDATE qor_event_count SET n = n - 1 WHERE NEW.change < 0 AND scope = NEW.scope AND (level, bucket) IN (SELECT l.level, NEW.second >> l.level FROM (SELECT 24 AS level UNION ALL SELECT 20 UNION ALL SELECT 16 UNION ALL SELECT 12 UNION ALL SELECT 8 UNION ALL SELECT 4 UNION ALL SELECT 0) l); DELETE FROM qor_event_change WHERE rowid = NEW.rowid; END;
CREATE TRIGGER qor_event_count_empty AFTER UPDATE OF n ON qor_event_count WHEN NEW.n = 0 BEGIN DELETE FROM qor_event_count WHERE scope = NEW.scope AND level = NEW.level AND bucket = NEW.bucket; END;
CREATE TRIGGER qor_operation_count_full AFTER UPDATE OF n ON qor_operation_count WHEN NEW.n > 256 AND NEW.n > OLD.n AND NEW.split = 0 AND NEW.level > 0 BEGIN UPDATE qor_operation_count SET split = 1 WHERE scope = NEW.scope AND level = NEW.level AND bucket = NEW.bucket; INSERT INTO qor_operation_count (scope, level, bucket, n) SELECT NEW.scope, NEW.level - 4, CAST(strftime('%s', time) AS INTEGER) >> (NEW.level - 4), count(*) FROM (SELECT time FROM qor_operation WHERE NEW.scope = '' AND time BETWEEN coalesce(datetime(NEW.bucket << NEW.level, 'unixepoch'), '0000') AND coalesce(datetime(((NEW.bucket + 1) << NEW.level) - 1, 'unixepoch'), '9999-12-31 23:59:59') UNION ALL SELECT time FROM qor_operation WHERE length(NEW.scope) = 36 AND eid = NEW.scope AND time BETWEEN coalesce(datetime(NEW.bucket << NEW.level, 'unixepoch'), '0000') AND coalesce(datetime(((NEW.bucket + 1) << NEW.level) - 1, 'unixepoch'), '9999-12-31 23:59:59') UNION ALL SELECT time FROM qor_operation_environment WHERE length(NEW.scope) = 37 AND eid = substr(NEW.scope, 2) AND eid IS NOT own AND time BETWEEN coalesce(datetime(NEW.bucket << NEW.level, 'unixepoch'), '0000') AND coalesce(datetime(((NEW.bucket + 1) << NEW.level) - 1, 'unixepoch'), '9999-12-31 23:59:59') UNION ALL SELECT time FROM qor_operation_environment WHERE length(NEW.scope) = 73 AND eid = substr(NEW.scope, 38) AND own = substr(NEW.scope, 1, 36) AND eid <> own AND time BETWEEN coalesce(datetime(NEW.bucket << NEW.level, 'unixepoch'), '0000') AND coalesce(datetime(((NEW.bucket + 1) << NEW.level) - 1, 'unixepoch'), '9999-12-31 23:59:59')) WHERE time = datetime(time) GROUP BY 3 ON CONFLICT (scope, level, bucket) DO UPDATE SET n = excluded.n; END;
CREATE TRIGGER qor_event_count_full AFTER UPDATE OF n ON qor_event_count WHEN NEW.n > 256 AND NEW.n > OLD.n AND NEW.split = 0 AND NEW.level > 0 BEGIN UPDATE qor_event_count SET split = 1 WHERE scope = NEW.scope AND level = NEW.level AND bucket = NEW.bucket; INSERT INTO qor_event_count (scope, level, bucket, n) SELECT NEW.scope, NEW.level - 4, CAST(strftime('%s', time) AS INTEGER) >> (NEW.level - 4), count(*) FROM (SELECT time FROM qor_event WHERE substr(NEW.scope, 1, 1) = '/' AND category = substr(NEW.scope, 2) AND time BETWEEN coalesce(datetime(NEW.bucket << NEW.level, 'unixepoch'), '0000') AND coalesce(datetime(((NEW.bucket + 1) << NEW.level) - 1, 'unixepoch'), '9999-12-31 23:59:59') UNION ALL SELECT time FROM qor_event WHERE substr(NEW.scope, 1, 1) <> '/' AND category = substr(NEW.scope, 38) AND eid = substr(NEW.scope, 1, 36) AND time BETWEEN coalesce(datetime(NEW.bucket << NEW.level, 'unixepoch'), '0000') AND coalesce(datetime(((NEW.bucket + 1) << NEW.level) - 1, 'unixepoch'), '9999-12-31 23:59:59')) WHERE time = datetime(time) GROUP BY 3 ON CONFLICT (scope, level, bucket) DO UPDATE SET n = excluded.n; END;
CREATE TRIGGER qor_operation_coming BEFORE INSERT ON qor_operation BEGIN SELECT RAISE(ABORT, 'an operation has a time that is not of the form YYYY-MM-DD HH:MM:SS') WHERE NEW.time IS NOT datetime(NEW.time); DELETE FROM qor_log_replaced; INSERT INTO qor_log_replaced (kind, seq, time, eid, own, category) SELECT 0, seq, time, eid, NULL, NULL FROM qor_operation WHERE (seq = NEW.seq OR id = NEW.id); END;
CREATE TRIGGER qor_operation_came AFTER INSERT ON qor_operation BEGIN DELETE FROM qor_log_replaced WHERE seq <> NEW.seq AND EXISTS (SELECT 1 FROM qor_operation o WHERE o.seq = qor_log_replaced.seq); INSERT INTO qor_operation_change (scope, second, change) SELECT '', CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time); INSERT INTO qor_operation_change (scope, second, change) SELECT eid, CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time) AND length(eid) = 36; DELETE FROM qor_operation_environment WHERE operation IN (SELECT seq FROM qor_log_replaced); DELETE FROM qor_log_replaced; INSERT INTO qor_operation_change (scope, second, change) SELECT '', CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time); INSERT INTO qor_operation_change (scope, second, change) SELECT NEW.eid, CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time) AND length(NEW.eid) = 36; END;
CREATE TRIGGER qor_operation_changing BEFORE UPDATE OF seq, id, time, eid ON qor_operation BEGIN SELECT RAISE(ABORT, 'an operation has a time that is not of the form YYYY-MM-DD HH:MM:SS') WHERE NEW.time IS NOT OLD.time AND NEW.time IS NOT datetime(NEW.time); DELETE FROM qor_log_replaced; INSERT INTO qor_log_replaced (kind, seq, time, eid, own, category) SELECT 0, seq, time, eid, NULL, NULL FROM qor_operation WHERE (seq = NEW.seq OR id = NEW.id) AND seq <> OLD.seq; END;
CREATE TRIGGER qor_operation_changed AFTER UPDATE OF seq, id, time, eid ON qor_operation WHEN NEW.seq <> OLD.seq OR NEW.id <> OLD.id OR NEW.time <> OLD.time OR NEW.eid IS NOT OLD.eid BEGIN DELETE FROM qor_log_replaced WHERE seq <> NEW.seq AND EXISTS (SELECT 1 FROM qor_operation o WHERE o.seq = qor_log_replaced.seq); INSERT INTO qor_operation_change (scope, second, change) SELECT '', CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time); INSERT INTO qor_operation_change (scope, second, change) SELECT eid, CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time) AND length(eid) = 36; DELETE FROM qor_operation_environment WHERE operation IN (SELECT seq FROM qor_log_replaced); DELETE FROM qor_log_replaced; INSERT INTO qor_operation_change (scope, second, change) SELECT '', CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time); INSERT INTO qor_operation_change (scope, second, change) SELECT OLD.eid, CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time) AND length(OLD.eid) = 36; INSERT INTO qor_operation_change (scope, second, change) SELECT '', CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time); INSERT INTO qor_operation_change (scope, second, change) SELECT NEW.eid, CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time) AND length(NEW.eid) = 36; UPDATE qor_operation_environment SET operation = NEW.seq, time = NEW.time, own = NEW.eid WHERE operation = OLD.seq; END;
CREATE TRIGGER qor_operation_gone AFTER DELETE ON qor_operation BEGIN DELETE FROM qor_operation_environment WHERE operation = OLD.seq; DELETE FROM qor_log_replaced WHERE kind = 0 AND seq = OLD.seq; INSERT INTO qor_operation_change (scope, second, change) SELECT '', CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time); INSERT INTO qor_operation_change (scope, second, change) SELECT OLD.eid, CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time) AND length(OLD.eid) = 36; END;
CREATE TRIGGER qor_touched_coming BEFORE INSERT ON qor_operation_environment BEGIN SELECT RAISE(ABORT, 'there is no such operation') WHERE NOT EXISTS (SELECT 1 FROM qor_operation WHERE seq = NEW.operation); DELETE FROM qor_log_replaced; INSERT INTO qor_log_replaced (kind, seq, time, eid, own, category) SELECT 1, operation, time, eid, own, NULL FROM qor_operation_environment WHERE operation = NEW.operation AND eid = NEW.eid; END;
CREATE TRIGGER qor_touched_came AFTER INSERT ON qor_operation_environment BEGIN INSERT INTO qor_operation_change (scope, second, change) SELECT '>' || eid, CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time) AND eid IS NOT own AND length(eid) = 36; INSERT INTO qor_operation_change (scope, second, change) SELECT own || '>' || eid, CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time) AND eid <> own AND length(eid) = 36 AND length(own) = 36; DELETE FROM qor_log_replaced; INSERT INTO qor_operation_change (scope, second, change) SELECT '>' || NEW.eid, CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time) AND NEW.eid IS NOT NEW.own AND length(NEW.eid) = 36; INSERT INTO qor_operation_change (scope, second, change) SELECT NEW.own || '>' || NEW.eid, CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time) AND NEW.eid <> NEW.own AND length(NEW.eid) = 36 AND length(NEW.own) = 36; UPDATE qor_operation_environment SET time = (SELECT time FROM qor_operation WHERE seq = NEW.operation), own = (SELECT eid FROM qor_operation WHERE seq = NEW.operation) WHERE operation = NEW.operation AND eid = NEW.eid AND NOT EXISTS (SELECT 1 FROM qor_operation WHERE seq = NEW.operation AND time = NEW.time AND eid IS NEW.own); END;
CREATE TRIGGER qor_touched_changing BEFORE UPDATE OF operation, eid, own, time ON qor_operation_environment BEGIN SELECT RAISE(ABORT, 'own and time of an environment that an operation touches are those of the operation') WHERE NOT EXISTS (SELECT 1 FROM qor_operation WHERE seq = NEW.operation AND time = NEW.time AND eid IS NEW.own); DELETE FROM qor_log_replaced; INSERT INTO qor_log_replaced (kind, seq, time, eid, own, category) SELECT 1, operation, time, eid, own, NULL FROM qor_operation_environment WHERE operation = NEW.operation AND eid = NEW.eid AND (NEW.operation <> OLD.operation OR NEW.eid <> OLD.eid); END;
CREATE TRIGGER qor_touched_changed AFTER UPDATE OF operation, eid, own, time ON qor_operation_environment BEGIN INSERT INTO qor_operation_change (scope, second, change) SELECT '>' || eid, CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time) AND eid IS NOT own AND length(eid) = 36; INSERT INTO qor_operation_change (scope, second, change) SELECT own || '>' || eid, CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time) AND eid <> own AND length(eid) = 36 AND length(own) = 36; DELETE FROM qor_log_replaced; INSERT INTO qor_operation_change (scope, second, change) SELECT '>' || OLD.eid, CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time) AND OLD.eid IS NOT OLD.own AND length(OLD.eid) = 36; INSERT INTO qor_operation_change (scope, second, change) SELECT OLD.own || '>' || OLD.eid, CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time) AND OLD.eid <> OLD.own AND length(OLD.eid) = 36 AND length(OLD.own) = 36; INSERT INTO qor_operation_change (scope, second, change) SELECT '>' || NEW.eid, CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time) AND NEW.eid IS NOT NEW.own AND length(NEW.eid) = 36; INSERT INTO qor_operation_change (scope, second, change) SELECT NEW.own || '>' || NEW.eid, CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time) AND NEW.eid <> NEW.own AND length(NEW.eid) = 36 AND length(NEW.own) = 36; END;
CREATE TRIGGER qor_touched_gone AFTER DELETE ON qor_operation_environment BEGIN DELETE FROM qor_log_replaced WHERE kind = 1 AND seq = OLD.operation AND eid = OLD.eid; INSERT INTO qor_operation_change (scope, second, change) SELECT '>' || OLD.eid, CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time) AND OLD.eid IS NOT OLD.own AND length(OLD.eid) = 36; INSERT INTO qor_operation_change (scope, second, change) SELECT OLD.own || '>' || OLD.eid, CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time) AND OLD.eid <> OLD.own AND length(OLD.eid) = 36 AND length(OLD.own) = 36; END;
CREATE TRIGGER qor_event_coming BEFORE INSERT ON qor_event BEGIN SELECT RAISE(ABORT, 'an event has a time that is not of the form YYYY-MM-DD HH:MM:SS') WHERE NEW.time IS NOT datetime(NEW.time); DELETE FROM qor_log_replaced; INSERT INTO qor_log_replaced (kind, seq, time, eid, own, category) SELECT 2, seq, time, eid, NULL, category FROM qor_event WHERE seq = NEW.seq; END;
CREATE TRIGGER qor_event_came AFTER INSERT ON qor_event BEGIN INSERT INTO qor_event_change (scope, second, change) SELECT '/' || category, CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time) AND category <> ''; INSERT INTO qor_event_change (scope, second, change) SELECT eid || '/' || category, CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time) AND category <> '' AND length(eid) = 36; DELETE FROM qor_log_replaced; INSERT INTO qor_event_change (scope, second, change) SELECT '/' || NEW.category, CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time) AND NEW.category <> ''; INSERT INTO qor_event_change (scope, second, change) SELECT NEW.eid || '/' || NEW.category, CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time) AND NEW.category <> '' AND length(NEW.eid) = 36; END;
CREATE TRIGGER qor_event_changing BEFORE UPDATE OF seq, time, eid, category ON qor_event BEGIN SELECT RAISE(ABORT, 'an event has a time that is not of the form YYYY-MM-DD HH:MM:SS') WHERE NEW.time IS NOT OLD.time AND NEW.time IS NOT datetime(NEW.time); DELETE FROM qor_log_replaced; INSERT INTO qor_log_replaced (kind, seq, time, eid, own, category) SELECT 2, seq, time, eid, NULL, category FROM qor_event WHERE seq = NEW.seq AND seq <> OLD.seq; END;
CREATE TRIGGER qor_event_changed AFTER UPDATE OF seq, time, eid, category ON qor_event BEGIN INSERT INTO qor_event_change (scope, second, change) SELECT '/' || category, CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time) AND category <> ''; INSERT INTO qor_event_change (scope, second, change) SELECT eid || '/' || category, CAST(strftime('%s', time) AS INTEGER), -1 FROM qor_log_replaced WHERE time = datetime(time) AND category <> '' AND length(eid) = 36; DELETE FROM qor_log_replaced; INSERT INTO qor_event_change (scope, second, change) SELECT '/' || OLD.category, CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time) AND OLD.category <> ''; INSERT INTO qor_event_change (scope, second, change) SELECT OLD.eid || '/' || OLD.category, CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time) AND OLD.category <> '' AND length(OLD.eid) = 36; INSERT INTO qor_event_change (scope, second, change) SELECT '/' || NEW.category, CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time) AND NEW.category <> ''; INSERT INTO qor_event_change (scope, second, change) SELECT NEW.eid || '/' || NEW.category, CAST(strftime('%s', NEW.time) AS INTEGER), 1 WHERE NEW.time = datetime(NEW.time) AND NEW.category <> '' AND length(NEW.eid) = 36; END;
CREATE TRIGGER qor_event_gone AFTER DELETE ON qor_event BEGIN DELETE FROM qor_log_replaced WHERE kind = 2 AND seq = OLD.seq; INSERT INTO qor_event_change (scope, second, change) SELECT '/' || OLD.category, CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time) AND OLD.category <> ''; INSERT INTO qor_event_change (scope, second, change) SELECT OLD.eid || '/' || OLD.category, CAST(strftime('%s', OLD.time) AS INTEGER), -1 WHERE OLD.time = datetime(OLD.time) AND OLD.category <> '' AND length(OLD.eid) = 36; END;
CREATE INDEX qor_request_time ON qor_request (time);
CREATE TRIGGER qor_environment_came AFTER INSERT ON qor_environment BEGIN UPDATE qor_change SET n = n + 1; INSERT INTO qor_environment_change (n, environments) SELECT n, CASE WHEN length(NEW.eid) = 36 THEN NEW.eid END FROM qor_change; DELETE FROM qor_environment_change WHERE (SELECT n FROM qor_change) % 256 = 0 AND n < (SELECT n FROM qor_environment_change ORDER BY n DESC LIMIT 1 OFFSET 1000); END;
CREATE TRIGGER qor_environment_gone AFTER DELETE ON qor_environment BEGIN UPDATE qor_change SET n = n + 1; INSERT INTO qor_environment_change (n, environments) SELECT n, CASE WHEN length(OLD.eid) = 36 THEN OLD.eid END FROM qor_change; DELETE FROM qor_environment_change WHERE (SELECT n FROM qor_change) % 256 = 0 AND n < (SELECT n FROM qor_environment_change ORDER BY n DESC LIMIT 1 OFFSET 1000); END;
CREATE TRIGGER qor_environment_changed AFTER UPDATE ON qor_environment BEGIN UPDATE qor_change SET n = n + 1; INSERT INTO qor_environment_change (n, environments) SELECT n, CASE WHEN length(NEW.eid) = 36 THEN NEW.eid END FROM qor_change; DELETE FROM qor_environment_change WHERE (SELECT n FROM qor_change) % 256 = 0 AND n < (SELECT n FROM qor_environment_change ORDER BY n DESC LIMIT 1 OFFSET 1000); END;
CREATE TRIGGER qor_environment_renamed AFTER UPDATE OF eid ON qor_environment WHEN NEW.eid IS NOT OLD.eid BEGIN UPDATE qor_change SET n = n + 1; INSERT INTO qor_environment_change (n, environments) SELECT n, CASE WHEN length(OLD.eid) = 36 THEN OLD.eid END FROM qor_change; DELETE FROM qor_environment_change WHERE (SELECT n FROM qor_change) % 256 = 0 AND n < (SELECT n FROM qor_environment_change ORDER BY n DESC LIMIT 1 OFFSET 1000); END;
CREATE INDEX qor_token_name ON qor_token (name);
CREATE TRIGGER qor_identity_came AFTER INSERT ON qor_identity BEGIN UPDATE qor_identity_change SET n = n + 1; END;
CREATE TRIGGER qor_identity_gone AFTER DELETE ON qor_identity BEGIN UPDATE qor_identity_change SET n = n + 1; END;
CREATE TRIGGER qor_identity_changed AFTER UPDATE ON qor_identity BEGIN UPDATE qor_identity_change SET n = n + 1; END;
CREATE TRIGGER qor_identity_environment_came AFTER INSERT ON qor_identity_environment BEGIN UPDATE qor_identity_change SET n = n + 1; END;
CREATE TRIGGER qor_identity_environment_gone AFTER DELETE ON qor_identity_environment BEGIN UPDATE qor_identity_change SET n = n + 1; END;
CREATE TRIGGER qor_identity_environment_changed AFTER UPDATE ON qor_identity_environment BEGIN UPDATE qor_identity_change SET n = n + 1; END;
CREATE TRIGGER qor_token_came AFTER INSERT ON qor_token BEGIN UPDATE qor_identity_change SET n = n + 1; END;
CREATE TRIGGER qor_token_gone AFTER DELETE ON qor_token BEGIN UPDATE qor_identity_change SET n = n + 1; END;
CREATE TRIGGER qor_token_changed AFTER UPDATE OF digest, name, created, expires ON qor_token BEGIN UPDATE qor_identity_change SET n = n + 1; END;
CREATE TRIGGER qor_operation_noted AFTER INSERT ON qor_operation BEGIN UPDATE qor_record_number SET n = n + 1; INSERT INTO qor_record_change (n, kind, first, last) SELECT coalesce(l.n, s.n), 1, coalesce(l.first, NEW.seq), NEW.seq FROM qor_record_number s LEFT JOIN qor_record_change l ON l.n = (SELECT max(n) FROM qor_record_change) AND l.kind = 1 AND l.last = NEW.seq - 1 WHERE true ON CONFLICT (n) DO UPDATE SET last = excluded.last; END;
CREATE TRIGGER qor_operation_noted_again AFTER UPDATE ON qor_operation BEGIN UPDATE qor_record_number SET n = n + 1; INSERT INTO qor_record_change (n, kind, first, last) SELECT coalesce(l.n, s.n), 1, coalesce(l.first, NEW.seq), NEW.seq FROM qor_record_number s LEFT JOIN qor_record_change l ON l.n = (SELECT max(n) FROM qor_record_change) AND l.kind = 1 AND l.last = NEW.seq - 1 WHERE true ON CONFLICT (n) DO UPDATE SET last = excluded.last; END;
CREATE TRIGGER qor_event_noted AFTER INSERT ON qor_event BEGIN UPDATE qor_record_number SET n = n + 1; INSERT INTO qor_record_change (n, kind, first, last) SELECT coalesce(l.n, s.n), 2, coalesce(l.first, NEW.seq), NEW.seq FROM qor_record_number s LEFT JOIN qor_record_change l ON l.n = (SELECT max(n) FROM qor_record_change) AND l.kind = 2 AND l.last = NEW.seq - 1 WHERE true ON CONFLICT (n) DO UPDATE SET last = excluded.last; END;
CREATE TRIGGER qor_event_noted_again AFTER UPDATE ON qor_event BEGIN UPDATE qor_record_number SET n = n + 1; INSERT INTO qor_record_change (n, kind, first, last) SELECT coalesce(l.n, s.n), 2, coalesce(l.first, NEW.seq), NEW.seq FROM qor_record_number s LEFT JOIN qor_record_change l ON l.n = (SELECT max(n) FROM qor_record_change) AND l.kind = 2 AND l.last = NEW.seq - 1 WHERE true ON CONFLICT (n) DO UPDATE SET last = excluded.last; END;
CREATE TRIGGER qor_backup_noted AFTER INSERT ON qor_backup BEGIN UPDATE qor_record_number SET n = n + 1; INSERT INTO qor_record_change (n, kind, first, last) SELECT coalesce(l.n, s.n), 3, coalesce(l.first, NEW.seq), NEW.seq FROM qor_record_number s LEFT JOIN qor_record_change l ON l.n = (SELECT max(n) FROM qor_record_change) AND l.kind = 3 AND l.last = NEW.seq - 1 WHERE true ON CONFLICT (n) DO UPDATE SET last = excluded.last; END;
CREATE TRIGGER qor_backup_noted_again AFTER UPDATE ON qor_backup BEGIN UPDATE qor_record_number SET n = n + 1; INSERT INTO qor_record_change (n, kind, first, last) SELECT coalesce(l.n, s.n), 3, coalesce(l.first, NEW.seq), NEW.seq FROM qor_record_number s LEFT JOIN qor_record_change l ON l.n = (SELECT max(n) FROM qor_record_change) AND l.kind = 3 AND l.last = NEW.seq - 1 WHERE true ON CONFLICT (n) DO UPDATE SET last = excluded.last; END;
CREATE TRIGGER qor_environment_noted AFTER INSERT ON qor_environment BEGIN UPDATE qor_record_number SET n = n + 1; INSERT INTO qor_record_change (n, kind, first, last, eid) SELECT n, 0, 0, 0, NEW.eid FROM qor_record_number; END;
CREATE TRIGGER qor_environment_noted_again AFTER UPDATE ON qor_environment BEGIN UPDATE qor_record_number SET n = n + 1; INSERT INTO qor_record_change (n, kind, first, last, eid) SELECT n, 0, 0, 0, NEW.eid FROM qor_record_number; END;
CREATE UNIQUE INDEX qor_event_uid ON qor_event (uid) WHERE uid IS NOT NULL;
CREATE VIEW "vEnvironment" AS SELECT
    eid, parent_eid, title, state, transition, name, description, domain, hostname, architecture, type,
    os_name, os_platform, os_version, os_kernel, ip, memory, boot_time, config, virtual_config, updated,
    security_operation AS "securityOperation_1", eid AS "securableObjId", reporter
FROM qor_environment;
CREATE VIEW "vBackupInfo" AS SELECT
    id, eid, storage_eid, time, size, type, description, name, hostname, info,
    security_operation AS "securityOperation_4", eid AS "securableObjId", reporter
FROM qor_backup;
CREATE VIEW "vOpLog" AS SELECT
    id, parent_id, op, status, time, eid, package, version, message,
    security_operation AS "securityOperation_2", eid AS "securableObjId", reporter
FROM qor_operation;
CREATE VIEW "vEventLog" AS SELECT
    id, time, eid, source, category, info,
    security_operation AS "securityOperation_3", eid AS "securableObjId", reporter
FROM qor_event;
CREATE TRIGGER qor_ended_session_came AFTER INSERT ON qor_ended_session BEGIN UPDATE qor_identity_change SET n = n + 1; END;
COMMIT;
