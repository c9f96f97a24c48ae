SET statement_timeout = 0;
SET lock_timeout = 0;
SET idle_in_transaction_session_timeout = 0;
SET client_encoding = 'UTF8';
SET standard_conforming_strings = on;
SELECT pg_catalog.set_config('search_path', '', false);
SET check_function_bodies = false;
SET xmloption = content;
SET client_min_messages = warning;
SET row_security = off;
CREATE FUNCTION public.qor_backup_documents() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN IF NOT EXISTS (SELECT FROM qor_unreadable_document) THEN RETURN NULL; END IF; IF TG_OP = 'DELETE' THEN DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = 'qor_backup' AND d.part = 'info' AND d.record = g.seq::text; ELSE DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = 'qor_backup' AND d.part = 'info' AND d.record = g.seq::text AND NOT EXISTS (SELECT FROM came c WHERE c.seq = g.seq AND c.info IS NOT DISTINCT FROM g.info); END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_backup_emptied() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_backup'; RETURN NULL; END $$;
CREATE FUNCTION public.qor_change_number() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE next bigint; BEGIN PERFORM qor_count_due_tell(); UPDATE qor_change SET n = n + 1 RETURNING n INTO next; UPDATE qor_environment_change SET n = next WHERE id = NEW.id; IF next % 256 = 0 THEN DELETE FROM qor_environment_change WHERE n < (SELECT n FROM qor_environment_change WHERE n IS NOT NULL ORDER BY n DESC NULLS LAST OFFSET 1000 LIMIT 1); END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_count_due_first() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN PERFORM qor_count_due_tell(); RETURN NULL; END $$;
CREATE FUNCTION public.qor_count_due_last() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN IF EXISTS (SELECT FROM qor_count_due WHERE id = NEW.id) THEN PERFORM qor_count_due_tell(); END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_count_due_tell() RETURNS void
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE shared boolean; told record; f record; s text[]; l int[]; b bigint[]; BEGIN IF NOT EXISTS (SELECT FROM qor_count_due) THEN RETURN; END IF; FOREACH shared IN ARRAY '{f,t}'::boolean[] LOOP s := NULL; l := NULL; b := NULL; FOR told IN SELECT array_agg(g.scope) AS scopes, array_agg(g.second) AS seconds, array_agg(g.change) AS changes FROM (SELECT u.scope, u.second, sum(u.change)::bigint AS change, (row_number() OVER (ORDER BY u.scope, u.second) - 1) / 100000 AS block FROM (SELECT t.scope COLLATE "C" AS scope, t.second, t.change FROM qor_count_due d CROSS JOIN unnest(d.scopes, d.seconds, d.changes) AS t (scope, second, change) WHERE d.log = 'qor_event' AND (t.scope = '' OR left(t.scope, 1) = '/') = shared) u GROUP BY u.scope, u.second HAVING sum(u.change) <> 0) g GROUP BY g.block ORDER BY g.block LOOP SELECT * INTO f FROM qor_event_count_change(told.scopes, told.seconds, told.changes); s := s || f.full_scopes; l := l || f.full_levels; b := b || f.full_buckets; END LOOP; PERFORM qor_event_count_split(s, l, b); s := NULL; l := NULL; b := NULL; FOR told IN SELECT array_agg(g.scope) AS scopes, array_agg(g.second) AS seconds, array_agg(g.change) AS changes FROM (SELECT u.scope, u.second, sum(u.change)::bigint AS change, (row_number() OVER (ORDER BY u.scope, u.second) - 1) / 100000 AS block FROM (SELECT t.scope COLLATE "C" AS scope, t.second, t.change FROM qor_count_due d CROSS JOIN unnest(d.scopes, d.seconds, d.changes) AS t (scope, second, change) WHERE d.log = 'qor_operation' AND (t.scope = '' OR left(t.scope, 1) = '/') = shared) u GROUP BY u.scope, u.second HAVING sum(u.change) <> 0) g GROUP BY g.block ORDER BY g.block LOOP SELECT * INTO f FROM qor_operation_count_change(told.scopes, told.seconds, told.changes); s := s || f.full_scopes; l := l || f.full_levels; b := b || f.full_buckets; END LOOP; PERFORM qor_operation_count_split(s, l, b); END LOOP; DELETE FROM qor_count_due; END $$;
CREATE FUNCTION public.qor_environment_documents() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN IF NOT EXISTS (SELECT FROM qor_unreadable_document) THEN RETURN NULL; END IF; IF TG_OP = 'DELETE' THEN DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = 'qor_environment' AND d.part = 'config' AND d.record = g.eid::text; DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = 'qor_environment' AND d.part = 'virtual_config' AND d.record = g.eid::text; ELSE DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = 'qor_environment' AND d.part = 'config' AND d.record = g.eid::text AND NOT EXISTS (SELECT FROM came c WHERE c.eid = g.eid AND c.config IS NOT DISTINCT FROM g.config); DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = 'qor_environment' AND d.part = 'virtual_config' AND d.record = g.eid::text AND NOT EXISTS (SELECT FROM came c WHERE c.eid = g.eid AND c.virtual_config IS NOT DISTINCT FROM g.virtual_config); END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_environment_emptied() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN DELETE FROM qor_unreadable_document WHERE source = 'qor_environment'; RETURN NULL; END $$;
CREATE FUNCTION public.qor_environment_note() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE eids text; number bigint; BEGIN IF TG_OP = 'INSERT' THEN SELECT string_agg(eid::text, ' '), count(*) INTO eids, number FROM came; ELSIF TG_OP = 'DELETE' THEN SELECT string_agg(eid::text, ' '), count(*) INTO eids, number FROM gone; ELSIF TG_OP = 'UPDATE' THEN SELECT string_agg(eid::text, ' '), count(*) INTO eids, number FROM (SELECT eid FROM came UNION SELECT eid FROM gone) e; ELSE number := 1; END IF; IF number > 0 THEN INSERT INTO qor_environment_change (environments) VALUES (CASE WHEN number <= 10000 THEN eids END); END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_event_count_change(scopes text[], seconds bigint[], changes bigint[], OUT full_scopes text[], OUT full_levels integer[], OUT full_buckets bigint[]) RETURNS record
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE wide int := 24; done record; BEGIN LOOP WITH told AS (INSERT INTO qor_event_count AS c (scope, level, bucket, n) SELECT g.scope, wide, g.bucket, g.change FROM (SELECT t.scope COLLATE "C" AS scope, t.second >> wide AS bucket, sum(t.change)::bigint AS change FROM unnest(scopes, seconds, changes) AS t (scope, second, change) GROUP BY 1, 2) g WHERE wide = 24 OR EXISTS (SELECT FROM qor_event_count p WHERE p.scope = g.scope AND p.level = wide + 4 AND p.bucket = g.bucket >> 4 AND p.split = 1) ORDER BY 1, 3 ON CONFLICT (scope, level, bucket) DO UPDATE SET n = c.n + excluded.n RETURNING c.scope, c.bucket, c.n, c.split) SELECT bool_or(split = 1) AS deeper, array_agg(scope) FILTER (WHERE split = 0 AND n > 256) AS scopes, array_agg(bucket) FILTER (WHERE split = 0 AND n > 256) AS buckets INTO done FROM told; IF wide > 0 AND done.scopes IS NOT NULL THEN full_scopes := full_scopes || done.scopes; full_levels := full_levels || array_fill(wide, ARRAY[cardinality(done.scopes)]); full_buckets := full_buckets || done.buckets; END IF; EXIT WHEN wide = 0 OR done.deeper IS NOT TRUE; wide := wide - 4; END LOOP; IF 0 > ANY (changes) THEN DELETE FROM qor_event_count c USING unnest(scopes, seconds) AS t (scope, second) CROSS JOIN generate_series(0, 24, 4) AS l (level) WHERE c.scope = t.scope AND c.level = l.level AND c.bucket = t.second >> l.level AND c.n = 0; END IF; END $$;
CREATE FUNCTION public.qor_event_count_split(scopes text[], levels integer[], buckets bigint[]) RETURNS void
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE f record; finer bigint[]; s text[]; l int[]; b bigint[]; BEGIN WHILE cardinality(scopes) > 0 LOOP s := NULL; l := NULL; b := NULL; FOR f IN SELECT DISTINCT t.scope COLLATE "C" AS scope, t.level, t.bucket FROM unnest(scopes, levels, buckets) AS t (scope, level, bucket) ORDER BY 1, 2 DESC, 3 LOOP UPDATE qor_event_count SET split = 1 WHERE scope = f.scope AND level = f.level AND bucket = f.bucket AND split = 0 AND n > 256; CONTINUE WHEN NOT FOUND; WITH put AS (INSERT INTO qor_event_count (scope, level, bucket, n) SELECT f.scope, f.level - 4, x >> (f.level - 4), count(*) FROM qor_event_seconds(f.scope, f.bucket << f.level, ((f.bucket + 1) << f.level) - 1) AS x GROUP BY 3 ORDER BY 3 ON CONFLICT (scope, level, bucket) DO UPDATE SET n = excluded.n RETURNING bucket, n) SELECT array_agg(bucket) INTO finer FROM put WHERE n > 256; IF f.level > 4 AND finer IS NOT NULL THEN s := s || array_fill(f.scope, ARRAY[cardinality(finer)]); l := l || array_fill(f.level - 4, ARRAY[cardinality(finer)]); b := b || finer; END IF; END LOOP; scopes := s; levels := l; buckets := b; END LOOP; END $$;
CREATE FUNCTION public.qor_event_documents() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN IF NOT EXISTS (SELECT FROM qor_unreadable_document) THEN RETURN NULL; END IF; IF TG_OP = 'DELETE' THEN DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = 'qor_event' AND d.part = 'info' AND d.record = g.seq::text; ELSE DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = 'qor_event' AND d.part = 'info' AND d.record = g.seq::text AND NOT EXISTS (SELECT FROM came c WHERE c.seq = g.seq AND c.info IS NOT DISTINCT FROM g.info); END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_event_emptied() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN DELETE FROM qor_event_count; DELETE FROM qor_unreadable_document WHERE source = 'qor_event'; RETURN NULL; END $$;
CREATE FUNCTION public.qor_event_recount(counted text) RETURNS void
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE told record; f record; s text[]; l int[]; b bigint[]; BEGIN PERFORM qor_count_due_tell(); DELETE FROM qor_event_count WHERE scope = counted; FOR told IN SELECT array_agg(g.scope) AS scopes, array_agg(g.second) AS seconds, array_agg(g.change) AS changes FROM (SELECT u.scope, u.second, sum(u.change)::bigint AS change, (row_number() OVER (ORDER BY u.scope, u.second) - 1) / 100000 AS block FROM (SELECT counted AS scope, x AS second, 1 AS change FROM qor_event_seconds(counted, NULL, NULL) AS x) u GROUP BY u.scope, u.second HAVING sum(u.change) <> 0) g GROUP BY g.block ORDER BY g.block LOOP SELECT * INTO f FROM qor_event_count_change(told.scopes, told.seconds, told.changes); s := s || f.full_scopes; l := l || f.full_levels; b := b || f.full_buckets; END LOOP; PERFORM qor_event_count_split(s, l, b); END $$;
CREATE FUNCTION public.qor_event_seconds(scope text, first bigint, last bigint) RETURNS SETOF bigint
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE f timestamp := qor_time(coalesce(first, -62135596800)); l timestamp := qor_time(coalesce(last, 253402300799)); BEGIN IF scope !~ '^([0-9a-f]{8}-([0-9a-f]{4}-){3}[0-9a-f]{12})?/' THEN RETURN; END IF; IF substr(scope, 1, 1) = '/' THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint FROM qor_event r WHERE r.category = substr(scope, 2) AND r.time BETWEEN f AND l; ELSIF substr(scope, 37, 1) = '/' THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint FROM qor_event r WHERE r.category = substr(scope, 38) AND r.eid = substr(scope, 1, 36)::uuid AND r.time BETWEEN f AND l; END IF; END $$;
CREATE FUNCTION public.qor_event_tell() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN IF TG_OP = 'INSERT' THEN INSERT INTO qor_count_due (log, scopes, seconds, changes) SELECT 'qor_event', array_agg(g.scope), array_agg(g.second), array_agg(g.change) FROM (SELECT u.scope, u.second, u.change, (row_number() OVER () - 1) / 100000 AS block FROM (SELECT a.scope COLLATE "C" AS scope, a.second, sum(a.change)::bigint AS change FROM (SELECT '/' || category AS scope, extract(epoch FROM time)::bigint AS second, 1 AS change FROM came WHERE category <> '' UNION ALL SELECT eid::text || '/' || category, extract(epoch FROM time)::bigint AS second, 1 FROM came WHERE category <> '' AND eid IS NOT NULL) a GROUP BY 1, 2 HAVING sum(a.change) <> 0) u) g GROUP BY g.block; ELSIF TG_OP = 'DELETE' THEN INSERT INTO qor_count_due (log, scopes, seconds, changes) SELECT 'qor_event', array_agg(g.scope), array_agg(g.second), array_agg(g.change) FROM (SELECT u.scope, u.second, u.change, (row_number() OVER () - 1) / 100000 AS block FROM (SELECT a.scope COLLATE "C" AS scope, a.second, sum(a.change)::bigint AS change FROM (SELECT '/' || category AS scope, extract(epoch FROM time)::bigint AS second, -1 AS change FROM gone WHERE category <> '' UNION ALL SELECT eid::text || '/' || category, extract(epoch FROM time)::bigint AS second, -1 FROM gone WHERE category <> '' AND eid IS NOT NULL) a GROUP BY 1, 2 HAVING sum(a.change) <> 0) u) g GROUP BY g.block; ELSE INSERT INTO qor_count_due (log, scopes, seconds, changes) SELECT 'qor_event', array_agg(g.scope), array_agg(g.second), array_agg(g.change) FROM (SELECT u.scope, u.second, u.change, (row_number() OVER () - 1) / 100000 AS block FROM (SELECT a.scope COLLATE "C" AS scope, a.second, sum(a.change)::bigint AS change FROM (SELECT '/' || category AS scope, extract(epoch FROM time)::bigint AS second, 1 AS change FROM came WHERE category <> '' UNION ALL SELECT eid::text || '/' || category, extract(epoch FROM time)::bigint AS second, 1 FROM came WHERE category <> '' AND eid IS NOT NULL UNION ALL SELECT '/' || category AS scope, extract(epoch FROM time)::bigint AS second, -1 AS change FROM gone WHERE category <> '' UNION ALL SELECT eid::text || '/' || category, extract(epoch FROM time)::bigint AS second, -1 FROM gone WHERE category <> '' AND eid IS NOT NULL) a GROUP BY 1, 2 HAVING sum(a.change) <> 0) u) g GROUP BY g.block; END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_identity_note() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN UPDATE qor_identity_change SET n = n + 1; RETURN NULL; END $$;
CREATE FUNCTION public.qor_operation_count_change(scopes text[], seconds bigint[], changes bigint[], OUT full_scopes text[], OUT full_levels integer[], OUT full_buckets bigint[]) RETURNS record
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE wide int := 24; done record; BEGIN LOOP WITH told AS (INSERT INTO qor_operation_count AS c (scope, level, bucket, n) SELECT g.scope, wide, g.bucket, g.change FROM (SELECT t.scope COLLATE "C" AS scope, t.second >> wide AS bucket, sum(t.change)::bigint AS change FROM unnest(scopes, seconds, changes) AS t (scope, second, change) GROUP BY 1, 2) g WHERE wide = 24 OR EXISTS (SELECT FROM qor_operation_count p WHERE p.scope = g.scope AND p.level = wide + 4 AND p.bucket = g.bucket >> 4 AND p.split = 1) ORDER BY 1, 3 ON CONFLICT (scope, level, bucket) DO UPDATE SET n = c.n + excluded.n RETURNING c.scope, c.bucket, c.n, c.split) SELECT bool_or(split = 1) AS deeper, array_agg(scope) FILTER (WHERE split = 0 AND n > 256) AS scopes, array_agg(bucket) FILTER (WHERE split = 0 AND n > 256) AS buckets INTO done FROM told; IF wide > 0 AND done.scopes IS NOT NULL THEN full_scopes := full_scopes || done.scopes; full_levels := full_levels || array_fill(wide, ARRAY[cardinality(done.scopes)]); full_buckets := full_buckets || done.buckets; END IF; EXIT WHEN wide = 0 OR done.deeper IS NOT TRUE; wide := wide - 4; END LOOP; IF 0 > ANY (changes) THEN DELETE FROM qor_operation_count c USING unnest(scopes, seconds) AS t (scope, second) CROSS JOIN generate_series(0, 24, 4) AS l (level) WHERE c.scope = t.scope AND c.level = l.level AND c.bucket = t.second >> l.level AND c.n = 0; END IF; END $$;
CREATE FUNCTION public.qor_operation_count_split(scopes text[], levels integer[], buckets bigint[]) RETURNS void
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE f record; finer bigint[]; s text[]; l int[]; b bigint[]; BEGIN WHILE cardinality(scopes) > 0 LOOP s := NULL; l := NULL; b := NULL; FOR f IN SELECT DISTINCT t.scope COLLATE "C" AS scope, t.level, t.bucket FROM unnest(scopes, levels, buckets) AS t (scope, level, bucket) ORDER BY 1, 2 DESC, 3 LOOP UPDATE qor_operation_count SET split = 1 WHERE scope = f.scope AND level = f.level AND bucket = f.bucket AND split = 0 AND n > 256; CONTINUE WHEN NOT FOUND; WITH put AS (INSERT INTO qor_operation_count (scope, level, bucket, n) SELECT f.scope, f.level - 4, x >> (f.level - 4), count(*) FROM qor_operation_seconds(f.scope, f.bucket << f.level, ((f.bucket + 1) << f.level) - 1) AS x GROUP BY 3 ORDER BY 3 ON CONFLICT (scope, level, bucket) DO UPDATE SET n = excluded.n RETURNING bucket, n) SELECT array_agg(bucket) INTO finer FROM put WHERE n > 256; IF f.level > 4 AND finer IS NOT NULL THEN s := s || array_fill(f.scope, ARRAY[cardinality(finer)]); l := l || array_fill(f.level - 4, ARRAY[cardinality(finer)]); b := b || finer; END IF; END LOOP; scopes := s; levels := l; buckets := b; END LOOP; END $$;
CREATE FUNCTION public.qor_operation_documents() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN IF NOT EXISTS (SELECT FROM qor_unreadable_document) THEN RETURN NULL; END IF; IF TG_OP = 'DELETE' THEN DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = 'qor_operation' AND d.part = 'message' AND d.record = g.seq::text; ELSE DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = 'qor_operation' AND d.part = 'message' AND d.record = g.seq::text AND NOT EXISTS (SELECT FROM came c WHERE c.seq = g.seq AND c.message IS NOT DISTINCT FROM g.message); END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_operation_emptied() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN DELETE FROM qor_operation_count; DELETE FROM qor_unreadable_document WHERE source = 'qor_operation'; RETURN NULL; END $$;
CREATE FUNCTION public.qor_operation_recount(counted text) RETURNS void
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE told record; f record; s text[]; l int[]; b bigint[]; BEGIN PERFORM qor_count_due_tell(); DELETE FROM qor_operation_count WHERE scope = counted; FOR told IN SELECT array_agg(g.scope) AS scopes, array_agg(g.second) AS seconds, array_agg(g.change) AS changes FROM (SELECT u.scope, u.second, sum(u.change)::bigint AS change, (row_number() OVER (ORDER BY u.scope, u.second) - 1) / 100000 AS block FROM (SELECT counted AS scope, x AS second, 1 AS change FROM qor_operation_seconds(counted, NULL, NULL) AS x) u GROUP BY u.scope, u.second HAVING sum(u.change) <> 0) g GROUP BY g.block ORDER BY g.block LOOP SELECT * INTO f FROM qor_operation_count_change(told.scopes, told.seconds, told.changes); s := s || f.full_scopes; l := l || f.full_levels; b := b || f.full_buckets; END LOOP; PERFORM qor_operation_count_split(s, l, b); END $$;
CREATE FUNCTION public.qor_operation_seconds(scope text, first bigint, last bigint) RETURNS SETOF bigint
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $_$ DECLARE f timestamp := qor_time(coalesce(first, -62135596800)); l timestamp := qor_time(coalesce(last, 253402300799)); BEGIN IF scope !~ '^([0-9a-f]{8}-([0-9a-f]{4}-){3}[0-9a-f]{12})?(>[0-9a-f]{8}-([0-9a-f]{4}-){3}[0-9a-f]{12})?$' THEN RETURN; END IF; IF scope = '' THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint FROM qor_operation r WHERE r.time BETWEEN f AND l; ELSIF length(scope) = 36 THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint FROM qor_operation r WHERE r.eid = scope::uuid AND r.time BETWEEN f AND l; ELSIF length(scope) = 37 THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint FROM qor_operation_environment r WHERE r.eid = substr(scope, 2)::uuid AND r.eid IS DISTINCT FROM r.own AND r.time BETWEEN f AND l; ELSIF length(scope) = 73 THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint FROM qor_operation_environment r WHERE r.eid = substr(scope, 38)::uuid AND r.own = substr(scope, 1, 36)::uuid AND r.eid <> r.own AND r.time BETWEEN f AND l; END IF; END $_$;
CREATE FUNCTION public.qor_operation_tell() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN IF TG_OP = 'INSERT' THEN INSERT INTO qor_count_due (log, scopes, seconds, changes) SELECT 'qor_operation', array_agg(g.scope), array_agg(g.second), array_agg(g.change) FROM (SELECT u.scope, u.second, u.change, (row_number() OVER () - 1) / 100000 AS block FROM (SELECT a.scope COLLATE "C" AS scope, a.second, sum(a.change)::bigint AS change FROM (SELECT '' AS scope, extract(epoch FROM time)::bigint AS second, 1 AS change FROM came UNION ALL SELECT eid::text, extract(epoch FROM time)::bigint AS second, 1 FROM came WHERE eid IS NOT NULL) a GROUP BY 1, 2 HAVING sum(a.change) <> 0) u) g GROUP BY g.block; ELSIF TG_OP = 'DELETE' THEN INSERT INTO qor_count_due (log, scopes, seconds, changes) SELECT 'qor_operation', array_agg(g.scope), array_agg(g.second), array_agg(g.change) FROM (SELECT u.scope, u.second, u.change, (row_number() OVER () - 1) / 100000 AS block FROM (SELECT a.scope COLLATE "C" AS scope, a.second, sum(a.change)::bigint AS change FROM (SELECT '' AS scope, extract(epoch FROM time)::bigint AS second, -1 AS change FROM gone UNION ALL SELECT eid::text, extract(epoch FROM time)::bigint AS second, -1 FROM gone WHERE eid IS NOT NULL) a GROUP BY 1, 2 HAVING sum(a.change) <> 0) u) g GROUP BY g.block; ELSE INSERT INTO qor_count_due (log, scopes, seconds, changes) SELECT 'qor_operation', array_agg(g.scope), array_agg(g.second), array_agg(g.change) FROM (SELECT u.scope, u.second, u.change, (row_number() OVER () - 1) / 100000 AS block FROM (SELECT a.scope COLLATE "C" AS scope, a.second, sum(a.change)::bigint AS change FROM (SELECT '' AS scope, extract(epoch FROM time)::bigint AS second, 1 AS change FROM came UNION ALL SELECT eid::text, extract(epoch FROM time)::bigint AS second, 1 FROM came WHERE eid IS NOT NULL UNION ALL SELECT '' AS scope, extract(epoch FROM time)::bigint AS second, -1 AS change FROM gone UNION ALL SELECT eid::text, extract(epoch FROM time)::bigint AS second, -1 FROM gone WHERE eid IS NOT NULL) a GROUP BY 1, 2 HAVING sum(a.change) <> 0) u) g GROUP BY g.block; END IF; IF TG_OP = 'UPDATE' THEN IF EXISTS (SELECT FROM came o JOIN qor_operation_environment e ON e.operation = o.seq WHERE (e.time, e.own) IS DISTINCT FROM (o.time, o.eid)) THEN UPDATE qor_operation_environment e SET time = o.time, own = o.eid FROM came o WHERE e.operation = o.seq AND (e.time, e.own) IS DISTINCT FROM (o.time, o.eid); END IF; END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_record_due_last() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN IF NEW.kind < 0 THEN PERFORM qor_record_due_tell(); ELSIF NOT EXISTS (SELECT FROM qor_record_due WHERE kind < 0) THEN INSERT INTO qor_record_due (kind) VALUES (-1); END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_record_due_tell() RETURNS void
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ DECLARE past bigint; latest record; more bigint; BEGIN SELECT n INTO past FROM qor_record_number FOR UPDATE; SELECT c.n, c.kind, c.first, c.last INTO latest FROM qor_record_change c ORDER BY c.n DESC LIMIT 1; WITH due AS (DELETE FROM qor_record_due RETURNING kind, seqs, eids), records AS (SELECT DISTINCT d.kind, u.seq FROM due d CROSS JOIN unnest(d.seqs) AS u (seq)), runs AS (SELECT kind, seq, seq - row_number() OVER (PARTITION BY kind ORDER BY seq) AS run FROM records), ranges AS (SELECT kind, min(seq) AS first, max(seq) AS last, NULL::uuid AS eid FROM runs GROUP BY kind, run UNION ALL SELECT DISTINCT 0, 0::bigint, 0::bigint, u.eid FROM due d CROSS JOIN unnest(d.eids) AS u (eid)), placed AS (SELECT r.*, sum(r.last - r.first + 1) OVER w - (r.last - r.first + 1) AS before, row_number() OVER w AS place FROM ranges r WINDOW w AS (ORDER BY r.kind, r.first, r.eid ROWS UNBOUNDED PRECEDING)), joined AS (SELECT p.*, coalesce(p.place = 1 AND p.kind > 0 AND p.kind = latest.kind AND p.first = latest.last + 1, false) AS goes_on FROM placed p), stored AS (INSERT INTO qor_record_change AS c (n, kind, first, last, eid) SELECT CASE WHEN j.goes_on THEN latest.n ELSE past + 1 + j.before END, j.kind, CASE WHEN j.goes_on THEN latest.first ELSE j.first END, j.last, j.eid FROM joined j ORDER BY j.place ON CONFLICT (n) DO UPDATE SET last = excluded.last) SELECT sum(last - first + 1) INTO more FROM ranges; UPDATE qor_record_number SET n = past + coalesce(more, 0); END $$;
CREATE FUNCTION public.qor_record_note() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN IF TG_ARGV[0] = '0' THEN INSERT INTO qor_record_due (kind, eids) SELECT 0, array_agg(b.eid) FROM (SELECT eid, (row_number() OVER () - 1) / 1000000 AS block FROM came) b GROUP BY b.block; ELSE INSERT INTO qor_record_due (kind, seqs) SELECT TG_ARGV[0]::int, array_agg(b.seq) FROM (SELECT seq, (row_number() OVER () - 1) / 1000000 AS block FROM came) b GROUP BY b.block; END IF; RETURN NULL; END $$;
CREATE FUNCTION public.qor_time(second bigint) RETURNS timestamp without time zone
    LANGUAGE sql IMMUTABLE
    AS $$ SELECT '1970-01-01 00:00:00'::timestamp + make_interval(secs => least(greatest(second, -62135596800), 253402300799)) $$;
CREATE FUNCTION public.qor_touched_emptied() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN DELETE FROM qor_operation_count WHERE length(scope) > 36; RETURN NULL; END $$;
CREATE FUNCTION public.qor_touched_tell() RETURNS trigger
    LANGUAGE plpgsql
    SET search_path TO '$user', 'public'
    AS $$ BEGIN IF TG_OP = 'INSERT' THEN INSERT INTO qor_count_due (log, scopes, seconds, changes) SELECT 'qor_operation', array_agg(g.scope), array_agg(g.second), array_agg(g.change) FROM (SELECT u.scope, u.second, u.change, (row_number() OVER () - 1) / 100000 AS block FROM (SELECT a.scope COLLATE "C" AS scope, a.second, sum(a.change)::bigint AS change FROM (SELECT '>' || eid::text AS scope, extract(epoch FROM time)::bigint AS second, 1 AS change FROM came WHERE eid IS DISTINCT FROM own UNION ALL SELECT own::text || '>' || eid::text, extract(epoch FROM time)::bigint AS second, 1 FROM came WHERE eid <> own) a GROUP BY 1, 2 HAVING sum(a.change) <> 0) u) g GROUP BY g.block; ELSIF TG_OP = 'DELETE' THEN INSERT INTO qor_count_due (log, scopes, seconds, changes) SELECT 'qor_operation', array_agg(g.scope), array_agg(g.second), array_agg(g.change) FROM (SELECT u.scope, u.second, u.change, (row_number() OVER () - 1) / 100000 AS block FROM (SELECT a.scope COLLATE "C" AS scope, a.second, sum(a.change)::bigint AS change FROM (SELECT '>' || eid::text AS scope, extract(epoch FROM time)::bigint AS second, -1 AS change FROM gone WHERE eid IS DISTINCT FROM own UNION ALL SELECT own::text || '>' || eid::text, extract(epoch FROM time)::bigint AS second, -1 FROM gone WHERE eid <> own) a GROUP BY 1, 2 HAVING sum(a.change) <> 0) u) g GROUP BY g.block; ELSE INSERT INTO qor_count_due (log, scopes, seconds, changes) SELECT 'qor_operation', array_agg(g.scope), array_agg(g.second), array_agg(g.change) FROM (SELECT u.scope, u.second, u.change, (row_number() OVER () - 1) / 100000 AS block FROM (SELECT a.scope COLLATE "C" AS scope, a.second, sum(a.change)::bigint AS change FROM (SELECT '>' || eid::text AS scope, extract(epoch FROM time)::bigint AS second, 1 AS change FROM came WHERE eid IS DISTINCT FROM own UNION ALL SELECT own::text || '>' || eid::text, extract(epoch FROM time)::bigint AS second, 1 FROM came WHERE eid <> own UNION ALL SELECT '>' || eid::text AS scope, extract(epoch FROM time)::bigint AS second, -1 AS change FROM gone WHERE eid IS DISTINCT FROM own UNION ALL SELECT own::text || '>' || eid::text, extract(epoch FROM time)::bigint AS second, -1 FROM gone WHERE eid <> own) a GROUP BY 1, 2 HAVING sum(a.change) <> 0) u) g GROUP BY g.block; END IF; IF TG_OP <> 'DELETE' THEN IF EXISTS (SELECT FROM came r JOIN qor_operation o ON o.seq = r.operation WHERE (r.time, r.own) IS DISTINCT FROM (o.time, o.eid)) THEN UPDATE qor_operation_environment e SET time = o.time, own = o.eid FROM came r JOIN qor_operation o ON o.seq = r.operation WHERE e.operation = r.operation AND e.eid = r.eid AND (e.time, e.own) IS DISTINCT FROM (o.time, o.eid); END IF; END IF; RETURN NULL; END $$;
CREATE VIEW public."SchemaTable" AS
 SELECT (c.relname)::text AS "viewName",
    (a.attname)::text AS name,
        CASE t.typname
            WHEN 'uuid'::name THEN 'uniqueidentifier'::text
            WHEN 'text'::name THEN 'nvarchar'::text
            WHEN 'varchar'::name THEN 'nvarchar'::text
            WHEN 'name'::name THEN 'nvarchar'::text
            WHEN 'bpchar'::name THEN 'char'::text
            WHEN 'int2'::name THEN 'smallint'::text
            WHEN 'int4'::name THEN 'int'::text
            WHEN 'int8'::name THEN 'bigint'::text
            WHEN 'bool'::name THEN 'bit'::text
            WHEN 'float4'::name THEN 'float'::text
            WHEN 'float8'::name THEN 'double'::text
            WHEN 'numeric'::name THEN 'decimal'::text
            WHEN 'timestamp'::name THEN 'datetime'::text
            WHEN 'timestamptz'::name THEN 'datetime'::text
            WHEN 'date'::name THEN 'datetime'::text
            WHEN 'bytea'::name THEN 'image'::text
            ELSE (t.typname)::text
        END AS type,
        CASE
            WHEN ((t.typname = ANY (ARRAY['varchar'::name, 'bpchar'::name])) AND (a.atttypmod > 4)) THEN (a.atttypmod - 4)
            WHEN ((t.typname = 'numeric'::name) AND (a.atttypmod > 4)) THEN (((a.atttypmod - 4) >> 16) & 65535)
            WHEN (t.typname = 'text'::name) THEN COALESCE(("substring"(col_description(c.oid, (a.attnum)::integer), '^nvarchar\((\d{1,9})\)$'::text))::integer, 0)
            ELSE 0
        END AS length,
    'UTF-8'::text AS "charSet",
    'BINARY'::text AS "collation",
    (a.attnum - 1) AS "position"
   FROM ((((pg_class c
     JOIN pg_namespace n ON ((n.oid = c.relnamespace)))
     JOIN pg_attribute a ON (((a.attrelid = c.oid) AND (a.attnum > 0) AND (NOT a.attisdropped))))
     JOIN pg_type d ON ((d.oid = a.atttypid)))
     JOIN pg_type t ON ((t.oid =
        CASE
            WHEN (d.typtype = 'd'::"char") THEN d.typbasetype
            ELSE d.oid
        END)))
  WHERE ((c.relkind = ANY (ARRAY['v'::"char", 'm'::"char"])) AND pg_table_is_visible(c.oid) AND (n.nspname !~~ 'pg\_%'::text) AND (n.nspname <> 'information_schema'::name) AND (lower((c.relname)::text) <> 'schematable'::text))
  ORDER BY ((c.relname)::text COLLATE "C"), a.attnum;
CREATE SEQUENCE public.qor_arrival
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1;
SET default_tablespace = '';
SET default_table_access_method = heap;
CREATE TABLE public.qor_backup (
    seq bigint NOT NULL,
    id text NOT NULL COLLATE pg_catalog."C",
    eid uuid,
    storage_eid uuid,
    "time" timestamp(0) without time zone NOT NULL,
    size bigint NOT NULL,
    type integer NOT NULL,
    description text COLLATE pg_catalog."C",
    name text COLLATE pg_catalog."C",
    hostname text COLLATE pg_catalog."C",
    info bytea,
    reporter text COLLATE pg_catalog."C",
    CONSTRAINT qor_backup_time_check CHECK ((("time" >= '0001-01-01 00:00:00'::timestamp without time zone) AND ("time" <= '9999-12-31 23:59:59'::timestamp without time zone)))
);
ALTER TABLE public.qor_backup ALTER COLUMN seq ADD GENERATED BY DEFAULT AS IDENTITY (
    SEQUENCE NAME public.qor_backup_seq_seq
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1
);
CREATE TABLE public.qor_change (
    n bigint NOT NULL
);
CREATE TABLE public.qor_collector_position (
    machine uuid NOT NULL,
    collector text NOT NULL COLLATE pg_catalog."C",
    "position" text NOT NULL COLLATE pg_catalog."C"
);
CREATE TABLE public.qor_commit (
    token text NOT NULL COLLATE pg_catalog."C",
    "time" timestamp with time zone DEFAULT now() NOT NULL
);
CREATE UNLOGGED TABLE public.qor_count_due (
    id bigint NOT NULL,
    log text NOT NULL COLLATE pg_catalog."C",
    scopes text[] NOT NULL,
    seconds bigint[] NOT NULL,
    changes bigint[] NOT NULL
);
ALTER TABLE ONLY public.qor_count_due ALTER COLUMN scopes SET STORAGE EXTERNAL;
ALTER TABLE ONLY public.qor_count_due ALTER COLUMN seconds SET STORAGE EXTERNAL;
ALTER TABLE ONLY public.qor_count_due ALTER COLUMN changes SET STORAGE EXTERNAL;
ALTER TABLE public.qor_count_due ALTER COLUMN id ADD GENERATED ALWAYS AS IDENTITY (
    SEQUENCE NAME public.qor_count_due_id_seq
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1
);
CREATE TABLE public.qor_database (
    id text NOT NULL COLLATE pg_catalog."C"
);
CREATE TABLE public.qor_ended_session (
    id text NOT NULL COLLATE pg_catalog."C",
    expires bigint NOT NULL
);
CREATE TABLE public.qor_environment (
    rowid bigint NOT NULL,
    eid uuid NOT NULL,
    parent_eid uuid,
    title text COLLATE pg_catalog."C",
    state integer NOT NULL,
    transition integer NOT NULL,
    name text COLLATE pg_catalog."C",
    description text COLLATE pg_catalog."C",
    domain text COLLATE pg_catalog."C",
    hostname text COLLATE pg_catalog."C",
    architecture text COLLATE pg_catalog."C",
    type text COLLATE pg_catalog."C",
    os_name text COLLATE pg_catalog."C",
    os_platform text COLLATE pg_catalog."C",
    os_version text COLLATE pg_catalog."C",
    os_kernel text COLLATE pg_catalog."C",
    ip text COLLATE pg_catalog."C",
    memory bigint,
    boot_time timestamp(0) without time zone,
    config text COLLATE pg_catalog."C",
    virtual_config text COLLATE pg_catalog."C",
    updated timestamp(0) without time zone NOT NULL,
    reporter text COLLATE pg_catalog."C",
    CONSTRAINT qor_environment_boot_time_check CHECK (((boot_time >= '0001-01-01 00:00:00'::timestamp without time zone) AND (boot_time <= '9999-12-31 23:59:59'::timestamp without time zone))),
    CONSTRAINT qor_environment_updated_check CHECK (((updated >= '0001-01-01 00:00:00'::timestamp without time zone) AND (updated <= '9999-12-31 23:59:59'::timestamp without time zone)))
);
CREATE TABLE public.qor_environment_address (
    eid uuid NOT NULL,
    source integer NOT NULL,
    "position" integer NOT NULL,
    address text NOT NULL COLLATE pg_catalog."C"
);
CREATE TABLE public.qor_environment_change (
    id bigint NOT NULL,
    n bigint,
    environments text COLLATE pg_catalog."C"
);
ALTER TABLE public.qor_environment_change ALTER COLUMN id ADD GENERATED BY DEFAULT AS IDENTITY (
    SEQUENCE NAME public.qor_environment_change_id_seq
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1
);
ALTER TABLE public.qor_environment ALTER COLUMN rowid ADD GENERATED BY DEFAULT AS IDENTITY (
    SEQUENCE NAME public.qor_environment_rowid_seq
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1
);
CREATE TABLE public.qor_event (
    seq bigint NOT NULL,
    "time" timestamp(0) without time zone NOT NULL,
    eid uuid,
    source text COLLATE pg_catalog."C",
    category text COLLATE pg_catalog."C",
    info text COLLATE pg_catalog."C",
    uid uuid,
    reporter text COLLATE pg_catalog."C",
    CONSTRAINT qor_event_time_check CHECK ((("time" >= '0001-01-01 00:00:00'::timestamp without time zone) AND ("time" <= '9999-12-31 23:59:59'::timestamp without time zone)))
);
CREATE TABLE public.qor_event_count (
    scope text NOT NULL COLLATE pg_catalog."C",
    level integer NOT NULL,
    bucket bigint NOT NULL,
    n bigint NOT NULL,
    split integer DEFAULT 0 NOT NULL
)
WITH (fillfactor='70');
ALTER TABLE public.qor_event ALTER COLUMN seq ADD GENERATED BY DEFAULT AS IDENTITY (
    SEQUENCE NAME public.qor_event_seq_seq
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1
);
CREATE TABLE public.qor_followed (
    n bigint NOT NULL
);
CREATE TABLE public.qor_forward_position (
    target text NOT NULL COLLATE pg_catalog."C",
    server text NOT NULL COLLATE pg_catalog."C",
    n bigint NOT NULL
);
CREATE TABLE public.qor_forward_refused (
    target text NOT NULL COLLATE pg_catalog."C",
    server text NOT NULL COLLATE pg_catalog."C",
    kind integer NOT NULL,
    id text NOT NULL COLLATE pg_catalog."C",
    reason text NOT NULL COLLATE pg_catalog."C",
    "time" bigint NOT NULL
);
CREATE TABLE public.qor_forward_stream (
    id uuid NOT NULL
);
CREATE TABLE public.qor_handover (
    source text NOT NULL COLLATE pg_catalog."C",
    name text NOT NULL COLLATE pg_catalog."C",
    number integer NOT NULL,
    connection text NOT NULL COLLATE pg_catalog."C",
    schema text NOT NULL COLLATE pg_catalog."C",
    modulus integer NOT NULL,
    remainder integer NOT NULL
);
CREATE TABLE public.qor_held (
    epoch bigint NOT NULL,
    modulus integer NOT NULL,
    remainder integer NOT NULL,
    home text DEFAULT ''::text NOT NULL COLLATE pg_catalog."C"
);
CREATE TABLE public.qor_identity (
    name text NOT NULL COLLATE pg_catalog."C",
    kind integer NOT NULL,
    subject text NOT NULL COLLATE pg_catalog."C",
    full_access integer NOT NULL
);
CREATE TABLE public.qor_identity_change (
    n bigint NOT NULL
);
CREATE TABLE public.qor_identity_environment (
    name text NOT NULL COLLATE pg_catalog."C",
    "position" integer NOT NULL,
    eid uuid NOT NULL,
    below integer NOT NULL,
    writes integer DEFAULT 0 NOT NULL
);
CREATE TABLE public.qor_moved (
    id bigint NOT NULL,
    source text NOT NULL COLLATE pg_catalog."C",
    seq bigint NOT NULL
);
ALTER TABLE public.qor_moved ALTER COLUMN id ADD GENERATED BY DEFAULT AS IDENTITY (
    SEQUENCE NAME public.qor_moved_id_seq
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1
);
CREATE TABLE public.qor_operation (
    seq bigint NOT NULL,
    id text NOT NULL COLLATE pg_catalog."C",
    parent_id text COLLATE pg_catalog."C",
    op text COLLATE pg_catalog."C",
    status integer NOT NULL,
    "time" timestamp(0) without time zone NOT NULL,
    eid uuid,
    package text COLLATE pg_catalog."C",
    version text COLLATE pg_catalog."C",
    message text COLLATE pg_catalog."C",
    reporter text COLLATE pg_catalog."C",
    CONSTRAINT qor_operation_time_check CHECK ((("time" >= '0001-01-01 00:00:00'::timestamp without time zone) AND ("time" <= '9999-12-31 23:59:59'::timestamp without time zone)))
);
CREATE TABLE public.qor_operation_count (
    scope text NOT NULL COLLATE pg_catalog."C",
    level integer NOT NULL,
    bucket bigint NOT NULL,
    n bigint NOT NULL,
    split integer DEFAULT 0 NOT NULL
)
WITH (fillfactor='70');
CREATE TABLE public.qor_operation_environment (
    operation bigint NOT NULL,
    eid uuid NOT NULL,
    "position" integer DEFAULT 0 NOT NULL,
    own uuid,
    "time" timestamp(0) without time zone DEFAULT '1970-01-01 00:00:00'::timestamp without time zone NOT NULL
);
ALTER TABLE public.qor_operation ALTER COLUMN seq ADD GENERATED BY DEFAULT AS IDENTITY (
    SEQUENCE NAME public.qor_operation_seq_seq
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1
);
CREATE TABLE public.qor_placement (
    epoch bigint NOT NULL
);
CREATE TABLE public.qor_record_change (
    n bigint NOT NULL,
    kind integer NOT NULL,
    first bigint NOT NULL,
    last bigint NOT NULL,
    eid uuid
)
WITH (fillfactor='90');
CREATE UNLOGGED TABLE public.qor_record_due (
    id bigint NOT NULL,
    kind integer NOT NULL,
    seqs bigint[],
    eids uuid[]
);
ALTER TABLE ONLY public.qor_record_due ALTER COLUMN seqs SET STORAGE EXTERNAL;
ALTER TABLE ONLY public.qor_record_due ALTER COLUMN eids SET STORAGE EXTERNAL;
ALTER TABLE public.qor_record_due ALTER COLUMN id ADD GENERATED ALWAYS AS IDENTITY (
    SEQUENCE NAME public.qor_record_due_id_seq
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1
);
CREATE TABLE public.qor_record_number (
    n bigint NOT NULL
);
CREATE TABLE public.qor_removal (
    id bigint NOT NULL,
    server text NOT NULL COLLATE pg_catalog."C",
    source text NOT NULL COLLATE pg_catalog."C",
    ids text NOT NULL COLLATE pg_catalog."C"
);
ALTER TABLE public.qor_removal ALTER COLUMN id ADD GENERATED BY DEFAULT AS IDENTITY (
    SEQUENCE NAME public.qor_removal_id_seq
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1
);
CREATE TABLE public.qor_request (
    rowid bigint NOT NULL,
    key text NOT NULL COLLATE pg_catalog."C",
    digest text NOT NULL COLLATE pg_catalog."C",
    last_line bigint NOT NULL,
    result text NOT NULL COLLATE pg_catalog."C",
    "time" bigint NOT NULL
);
ALTER TABLE public.qor_request ALTER COLUMN rowid ADD GENERATED BY DEFAULT AS IDENTITY (
    SEQUENCE NAME public.qor_request_rowid_seq
    START WITH 1
    INCREMENT BY 1
    NO MINVALUE
    NO MAXVALUE
    CACHE 1
);
CREATE TABLE public.qor_schema_version (
    version integer NOT NULL,
    mark text NOT NULL COLLATE pg_catalog."C",
    applied timestamp(0) without time zone NOT NULL
);
CREATE TABLE public.qor_secret (
    purpose text NOT NULL COLLATE pg_catalog."C",
    secret text NOT NULL COLLATE pg_catalog."C"
);
CREATE TABLE public.qor_server (
    name text NOT NULL COLLATE pg_catalog."C",
    number integer NOT NULL,
    connection text NOT NULL COLLATE pg_catalog."C",
    schema text DEFAULT 'public'::text NOT NULL COLLATE pg_catalog."C",
    modulus integer NOT NULL,
    remainder integer NOT NULL,
    CONSTRAINT qor_server_check CHECK (((remainder >= 0) AND (remainder <= (modulus - 1)))),
    CONSTRAINT qor_server_modulus_check CHECK ((modulus > 0)),
    CONSTRAINT qor_server_number_check CHECK ((number > 0))
);
CREATE TABLE public.qor_spread (
    eid uuid
)
PARTITION BY HASH (eid);
CREATE TABLE public.qor_token (
    digest text NOT NULL COLLATE pg_catalog."C",
    name text NOT NULL COLLATE pg_catalog."C",
    created bigint NOT NULL,
    expires bigint,
    last_use bigint
);
CREATE TABLE public.qor_touched_server (
    eid uuid NOT NULL,
    server text NOT NULL COLLATE pg_catalog."C"
);
CREATE TABLE public.qor_unreadable_document (
    source text NOT NULL COLLATE pg_catalog."C",
    part text NOT NULL COLLATE pg_catalog."C",
    record text NOT NULL COLLATE pg_catalog."C"
);
CREATE VIEW public."vBackupInfo" AS
 SELECT qor_backup.id,
    qor_backup.eid,
    qor_backup.storage_eid,
    qor_backup."time",
    qor_backup.size,
    qor_backup.type,
    qor_backup.description,
    qor_backup.name,
    qor_backup.hostname,
    qor_backup.info,
    4 AS "securityOperation_4",
    qor_backup.eid AS "securableObjId",
    qor_backup.reporter
   FROM public.qor_backup;
COMMENT ON COLUMN public."vBackupInfo".id IS 'nvarchar(128)';
COMMENT ON COLUMN public."vBackupInfo".name IS 'nvarchar(255)';
COMMENT ON COLUMN public."vBackupInfo".hostname IS 'nvarchar(255)';
COMMENT ON COLUMN public."vBackupInfo".reporter IS 'nvarchar(255)';
CREATE VIEW public."vEnvironment" AS
 SELECT qor_environment.eid,
    qor_environment.parent_eid,
    qor_environment.title,
    qor_environment.state,
    qor_environment.transition,
    qor_environment.name,
    qor_environment.description,
    qor_environment.domain,
    qor_environment.hostname,
    qor_environment.architecture,
    qor_environment.type,
    qor_environment.os_name,
    qor_environment.os_platform,
    qor_environment.os_version,
    qor_environment.os_kernel,
    qor_environment.ip,
    qor_environment.memory,
    qor_environment.boot_time,
    qor_environment.config,
    qor_environment.virtual_config,
    qor_environment.updated,
    1 AS "securityOperation_1",
    qor_environment.eid AS "securableObjId",
    qor_environment.reporter
   FROM public.qor_environment;
COMMENT ON COLUMN public."vEnvironment".title IS 'nvarchar(255)';
COMMENT ON COLUMN public."vEnvironment".name IS 'nvarchar(255)';
COMMENT ON COLUMN public."vEnvironment".domain IS 'nvarchar(255)';
COMMENT ON COLUMN public."vEnvironment".hostname IS 'nvarchar(255)';
COMMENT ON COLUMN public."vEnvironment".architecture IS 'nvarchar(64)';
COMMENT ON COLUMN public."vEnvironment".type IS 'nvarchar(64)';
COMMENT ON COLUMN public."vEnvironment".os_name IS 'nvarchar(128)';
COMMENT ON COLUMN public."vEnvironment".os_platform IS 'nvarchar(64)';
COMMENT ON COLUMN public."vEnvironment".os_version IS 'nvarchar(64)';
COMMENT ON COLUMN public."vEnvironment".os_kernel IS 'nvarchar(128)';
COMMENT ON COLUMN public."vEnvironment".ip IS 'nvarchar(64)';
COMMENT ON COLUMN public."vEnvironment".reporter IS 'nvarchar(255)';
CREATE VIEW public."vEventLog" AS
 SELECT qor_event.seq AS id,
    qor_event."time",
    qor_event.eid,
    qor_event.source,
    qor_event.category,
    qor_event.info,
    3 AS "securityOperation_3",
    qor_event.eid AS "securableObjId",
    qor_event.reporter
   FROM public.qor_event;
COMMENT ON COLUMN public."vEventLog".source IS 'nvarchar(255)';
COMMENT ON COLUMN public."vEventLog".category IS 'nvarchar(128)';
COMMENT ON COLUMN public."vEventLog".reporter IS 'nvarchar(255)';
CREATE VIEW public."vOpLog" AS
 SELECT qor_operation.id,
    qor_operation.parent_id,
    qor_operation.op,
    qor_operation.status,
    qor_operation."time",
    qor_operation.eid,
    qor_operation.package,
    qor_operation.version,
    qor_operation.message,
    2 AS "securityOperation_2",
    qor_operation.eid AS "securableObjId",
    qor_operation.reporter
   FROM public.qor_operation;
COMMENT ON COLUMN public."vOpLog".id IS 'nvarchar(128)';
COMMENT ON COLUMN public."vOpLog".parent_id IS 'nvarchar(128)';
COMMENT ON COLUMN public."vOpLog".op IS 'nvarchar(128)';
COMMENT ON COLUMN public."vOpLog".package IS 'nvarchar(255)';
COMMENT ON COLUMN public."vOpLog".version IS 'nvarchar(128)';
COMMENT ON COLUMN public."vOpLog".reporter IS 'nvarchar(255)';
INSERT INTO public.qor_backup VALUES
	(1, 'backup 1', '00000002-0000-4000-8000-000000000000', '00000003-0000-4000-8000-000000000000', '2023-11-14 22:13:20', 9000000000, 1, 'nightly', 'web', 'web2', '\x3c696e666f3e3c766569643e3130313c2f766569643e3c7469746c653e6120227469746c65223c2f7469746c653e3c2f696e666f3e', 'machine'),
	(2, 'backup 2', NULL, NULL, '2023-11-14 22:13:20', 0, 0, NULL, NULL, NULL, '\x3c696e666f2f3e', 'machine');
INSERT INTO public.qor_change VALUES
	(3);
INSERT INTO public.qor_commit VALUES
	('296632589878429648', '2026-11-24 16:24:00.000656+00'),
	('2159452607874796034', '2026-11-24 16:24:00.450635+00'),
	('14933500751497366692', '2026-11-24 16:24:00.590427+00'),
	('13954820940564069798', '2026-11-24 16:24:00.774134+00'),
	('3863141006933128969', '2026-11-24 16:24:00.985466+00'),
	('11926320425665178940', '2026-11-24 16:24:01.050185+00'),
	('6545980403883552787', '2026-11-24 16:24:01.073319+00');
INSERT INTO public.qor_database VALUES
	('082d186318c74c3d9eb7cd43aea3b99a');
INSERT INTO public.qor_environment VALUES
	(1, '00000001-0000-4000-8000-000000000000', '00000001-0000-4000-8000-000000000000', 'environment 1 of 9', 6, 0, 'web', NULL, NULL, 'web1', NULL, NULL, 'Debian', NULL, NULL, NULL, '10.0.0.1', NULL, NULL, '<info><name>web</name><hostname>web1</hostname><os><name>Debian</name></os><ip>10.0.0.1</ip><ip>10.0.1.1</ip></info>', NULL, '2026-11-24 16:24:01', 'machine'),
	(2, '00000002-0000-4000-8000-000000000000', '00000001-0000-4000-8000-000000000000', 'environment 2 of 9', 6, 0, 'web', NULL, NULL, 'web2', NULL, NULL, 'Debian', NULL, NULL, NULL, '10.0.0.2', NULL, NULL, '<info><name>web</name><hostname>web2</hostname><os><name>Debian</name></os><ip>10.0.0.2</ip><ip>10.0.1.2</ip></info>', NULL, '2026-11-24 16:24:01', 'machine'),
	(3, '00000003-0000-4000-8000-000000000000', '00000001-0000-4000-8000-000000000000', 'environment 3 of 9', 6, 0, 'web', NULL, NULL, 'web3', NULL, NULL, 'Debian', NULL, NULL, NULL, '10.0.0.3', NULL, NULL, '<info><name>web</name><hostname>web3</hostname><os><name>Debian</name></os><ip>10.0.0.3</ip><ip>10.0.1.3</ip></info>', NULL, '2026-11-24 16:24:01', 'machine');
INSERT INTO public.qor_environment_address VALUES
	('00000001-0000-4000-8000-000000000000', 0, 0, '10.0.0.1'),
	('00000001-0000-4000-8000-000000000000', 0, 1, '10.0.1.1'),
	('00000002-0000-4000-8000-000000000000', 0, 0, '10.0.0.2'),
	('00000002-0000-4000-8000-000000000000', 0, 1, '10.0.1.2'),
	('00000003-0000-4000-8000-000000000000', 0, 0, '10.0.0.3'),
	('00000003-0000-4000-8000-000000000000', 0, 1, '10.0.1.3');
INSERT INTO public.qor_environment_change VALUES
	(1, 0, ''),
	(2, 1, '00000001-0000-4000-8000-000000000000 00000002-0000-4000-8000-000000000000 00000003-0000-4000-8000-000000000000'),
	(3, 2, '00000001-0000-4000-8000-000000000000 00000002-0000-4000-8000-000000000000 00000003-0000-4000-8000-000000000000'),
	(4, 3, '00000001-0000-4000-8000-000000000000 00000002-0000-4000-8000-000000000000 00000003-0000-4000-8000-000000000000');
INSERT INTO public.qor_event VALUES
	(1, '2023-11-15 00:43:20', '00000001-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>1</n></info>', NULL, NULL),
	(2, '2023-11-15 03:13:20', '00000002-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>2</n></info>', NULL, NULL),
	(3, '2023-11-15 05:43:20', '00000003-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>3</n></info>', NULL, NULL),
	(4, '2023-11-15 08:13:20', '00000000-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>4</n></info>', NULL, NULL),
	(5, '2023-11-15 10:43:20', '00000001-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>5</n></info>', NULL, NULL),
	(6, '2023-11-15 13:13:20', '00000002-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>6</n></info>', NULL, NULL),
	(7, '2023-11-15 00:43:20', '00000001-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>1</n></info>', NULL, 'machine'),
	(8, '2023-11-15 03:13:20', '00000002-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>2</n></info>', NULL, 'machine'),
	(9, '2023-11-15 05:43:20', '00000003-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>3</n></info>', NULL, 'machine'),
	(10, '2023-11-15 08:13:20', '00000000-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>4</n></info>', NULL, 'machine'),
	(11, '2023-11-15 10:43:20', '00000001-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>5</n></info>', NULL, 'machine'),
	(12, '2023-11-15 13:13:20', '00000002-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>6</n></info>', NULL, 'machine'),
	(13, '2023-11-15 15:43:20', '00000003-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>7</n></info>', NULL, 'machine'),
	(14, '2023-11-15 18:13:20', '00000000-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>8</n></info>', NULL, 'machine'),
	(15, '2023-11-15 00:43:20', '00000001-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>1</n></info>', NULL, 'machine'),
	(16, '2023-11-15 03:13:20', '00000002-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>2</n></info>', NULL, 'machine'),
	(17, '2023-11-15 05:43:20', '00000003-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>3</n></info>', NULL, 'machine'),
	(18, '2023-11-15 08:13:20', '00000000-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>4</n></info>', NULL, 'machine'),
	(19, '2023-11-15 10:43:20', '00000001-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>5</n></info>', NULL, 'machine'),
	(20, '2023-11-15 13:13:20', '00000002-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>6</n></info>', NULL, 'machine'),
	(21, '2023-11-15 15:43:20', '00000003-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>7</n></info>', NULL, 'machine'),
	(22, '2023-11-15 18:13:20', '00000000-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>8</n></info>', NULL, 'machine'),
	(23, '2023-11-15 20:43:20', '00000001-0000-4000-8000-000000000000', 'kernel', 'device', '<info><n>9</n></info>', NULL, 'machine');
INSERT INTO public.qor_event_count VALUES
	('00000000-0000-4000-8000-000000000000/device', 24, 101, 5, 0),
	('00000001-0000-4000-8000-000000000000/device', 24, 101, 7, 0),
	('00000002-0000-4000-8000-000000000000/device', 24, 101, 6, 0),
	('00000003-0000-4000-8000-000000000000/device', 24, 101, 5, 0),
	('/device', 24, 101, 23, 0);
INSERT INTO public.qor_identity VALUES
	('machine', 3, 'machine', 1);
INSERT INTO public.qor_identity_change VALUES
	(2);
INSERT INTO public.qor_operation VALUES
	(1, 'op 1', NULL, 'install', 1, '2023-11-15 00:10:00', '00000002-0000-4000-8000-000000000000', 'libc1', '2.9', '<info><package><name>libc1</name><version>2.9</version></package></info>', 'machine'),
	(2, 'op 2', NULL, 'install', 2, '2023-11-15 02:06:40', '00000003-0000-4000-8000-000000000000', 'libc2', '2.9', '<info><package><name>libc2</name><version>2.9</version></package></info>', 'machine'),
	(3, 'op 3', NULL, 'install', 0, '2023-11-15 04:03:20', '00000001-0000-4000-8000-000000000000', 'libc3', '2.9', '<info><package><name>libc3</name><version>2.9</version></package></info>', 'machine'),
	(4, 'op 4', NULL, 'install', 1, '2023-11-15 06:00:00', '00000002-0000-4000-8000-000000000000', 'libc4', '2.9', '<info><package><name>libc4</name><version>2.9</version></package></info>', 'machine'),
	(5, 'op 5', NULL, 'install', 2, '2023-11-15 07:56:40', '00000003-0000-4000-8000-000000000000', 'libc5', '2.9', '<info><package><name>libc5</name><version>2.9</version></package></info>', 'machine'),
	(6, 'op 6', NULL, 'install', 0, '2023-11-15 09:53:20', '00000001-0000-4000-8000-000000000000', 'libc6', '2.9', '<info><package><name>libc6</name><version>2.9</version></package></info>', 'machine'),
	(13, 'op 7', NULL, 'install', 1, '2023-11-15 11:50:00', '00000002-0000-4000-8000-000000000000', 'libc7', '2.9', '<info><package><name>libc7</name><version>2.9</version></package></info>', 'machine'),
	(14, 'op 8', NULL, 'install', 2, '2023-11-15 13:46:40', '00000003-0000-4000-8000-000000000000', 'libc8', '2.9', '<info><package><name>libc8</name><version>2.9</version></package></info>', 'machine'),
	(23, 'op 9', NULL, 'install', 0, '2023-11-15 15:43:20', '00000001-0000-4000-8000-000000000000', 'libc9', '2.9', '<info><package><name>libc9</name><version>2.9</version></package></info>', 'machine');
INSERT INTO public.qor_operation_count VALUES
	('00000002-0000-4000-8000-000000000000', 24, 101, 3, 0),
	('00000002-0000-4000-8000-000000000000>00000001-0000-4000-8000-000000000000', 24, 101, 3, 0),
	('00000003-0000-4000-8000-000000000000', 24, 101, 3, 0),
	('00000003-0000-4000-8000-000000000000>00000001-0000-4000-8000-000000000000', 24, 101, 3, 0),
	('>00000001-0000-4000-8000-000000000000', 24, 101, 6, 0),
	('00000001-0000-4000-8000-000000000000', 24, 101, 3, 0),
	('', 24, 101, 9, 0);
INSERT INTO public.qor_operation_environment VALUES
	(1, '00000001-0000-4000-8000-000000000000', 0, '00000002-0000-4000-8000-000000000000', '2023-11-15 00:10:00'),
	(1, '00000002-0000-4000-8000-000000000000', 1, '00000002-0000-4000-8000-000000000000', '2023-11-15 00:10:00'),
	(2, '00000001-0000-4000-8000-000000000000', 0, '00000003-0000-4000-8000-000000000000', '2023-11-15 02:06:40'),
	(2, '00000003-0000-4000-8000-000000000000', 1, '00000003-0000-4000-8000-000000000000', '2023-11-15 02:06:40'),
	(3, '00000001-0000-4000-8000-000000000000', 0, '00000001-0000-4000-8000-000000000000', '2023-11-15 04:03:20'),
	(4, '00000001-0000-4000-8000-000000000000', 0, '00000002-0000-4000-8000-000000000000', '2023-11-15 06:00:00'),
	(4, '00000002-0000-4000-8000-000000000000', 1, '00000002-0000-4000-8000-000000000000', '2023-11-15 06:00:00'),
	(5, '00000001-0000-4000-8000-000000000000', 0, '00000003-0000-4000-8000-000000000000', '2023-11-15 07:56:40'),
	(5, '00000003-0000-4000-8000-000000000000', 1, '00000003-0000-4000-8000-000000000000', '2023-11-15 07:56:40'),
	(6, '00000001-0000-4000-8000-000000000000', 0, '00000001-0000-4000-8000-000000000000', '2023-11-15 09:53:20'),
	(13, '00000001-0000-4000-8000-000000000000', 0, '00000002-0000-4000-8000-000000000000', '2023-11-15 11:50:00'),
	(13, '00000002-0000-4000-8000-000000000000', 1, '00000002-0000-4000-8000-000000000000', '2023-11-15 11:50:00'),
	(14, '00000001-0000-4000-8000-000000000000', 0, '00000003-0000-4000-8000-000000000000', '2023-11-15 13:46:40'),
	(14, '00000003-0000-4000-8000-000000000000', 1, '00000003-0000-4000-8000-000000000000', '2023-11-15 13:46:40'),
	(23, '00000001-0000-4000-8000-000000000000', 0, '00000001-0000-4000-8000-000000000000', '2023-11-15 15:43:20');
INSERT INTO public.qor_placement VALUES
	(0);
INSERT INTO public.qor_record_change VALUES
	(1, 0, 0, 0, '00000001-0000-4000-8000-000000000000'),
	(2, 0, 0, 0, '00000002-0000-4000-8000-000000000000'),
	(3, 0, 0, 0, '00000003-0000-4000-8000-000000000000'),
	(4, 1, 1, 6, NULL),
	(10, 2, 1, 6, NULL),
	(16, 3, 1, 2, NULL),
	(18, 0, 0, 0, '00000001-0000-4000-8000-000000000000'),
	(19, 0, 0, 0, '00000002-0000-4000-8000-000000000000'),
	(20, 0, 0, 0, '00000003-0000-4000-8000-000000000000'),
	(21, 1, 1, 6, NULL),
	(27, 1, 13, 14, NULL),
	(29, 2, 7, 14, NULL),
	(37, 3, 1, 2, NULL),
	(39, 0, 0, 0, '00000001-0000-4000-8000-000000000000'),
	(40, 0, 0, 0, '00000002-0000-4000-8000-000000000000'),
	(41, 0, 0, 0, '00000003-0000-4000-8000-000000000000'),
	(42, 1, 1, 6, NULL),
	(48, 1, 13, 14, NULL),
	(50, 1, 23, 23, NULL),
	(51, 2, 15, 23, NULL),
	(60, 3, 1, 2, NULL);
INSERT INTO public.qor_record_number VALUES
	(61);
INSERT INTO public.qor_request VALUES
	(1, 'request-8', 'd45c0fd9b78ef8814016262d9469ea8012617c3a70a14cf2381f46f664733b24', 21, '{"counts":[[0,3,0],[2,6,0],[8,0,0],[0,2,0]],"refused":0,"lines":[]}', 1795537440),
	(2, 'request-9', 'dffa75dd39563933f7af1b8015ef5c0ad9c3d1d6319b11b4e798c389acb4d00b', 23, '{"counts":[[0,3,0],[1,8,0],[9,0,0],[0,2,0]],"refused":0,"lines":[]}', 1795537441);
INSERT INTO public.qor_schema_version VALUES
	(5, 'QORPager host database', '2026-11-24 16:24:00'),
	(6, 'QORPager host database', '2026-11-24 16:24:00'),
	(7, 'QORPager host database', '2026-11-24 16:24:00'),
	(8, 'QORPager host database', '2026-11-24 16:24:00'),
	(9, 'QORPager host database', '2026-11-24 16:24:00'),
	(10, 'QORPager host database', '2026-11-24 16:24:00'),
	(11, 'QORPager host database', '2026-11-24 16:24:00'),
	(12, 'QORPager host database', '2026-11-24 16:24:00'),
	(13, 'QORPager host database', '2026-11-24 16:24:00'),
	(14, 'QORPager host database', '2026-11-24 16:24:00'),
	(15, 'QORPager host database', '2026-11-24 16:24:00'),
	(16, 'QORPager host database', '2026-11-24 16:24:00'),
	(17, 'QORPager host database', '2026-11-24 16:24:00'),
	(18, 'QORPager host database', '2026-11-24 16:24:00'),
	(19, 'QORPager host database', '2026-11-24 16:24:00');
INSERT INTO public.qor_secret VALUES
	('pages', 'bf1f9e166c8131bfb8eda651a746eb2bf49d75a60cec786e180ecdf53a817939');
INSERT INTO public.qor_token VALUES
	('df54337b8435e05a7d1050ea8fb3f4eadf40f9a662d871e95d80fdc9873e93b8', 'machine', 1795537440, NULL, 1795537441);
SELECT pg_catalog.setval('public.qor_arrival', 1, false);
SELECT pg_catalog.setval('public.qor_backup_seq_seq', 6, true);
SELECT pg_catalog.setval('public.qor_count_due_id_seq', 11, true);
SELECT pg_catalog.setval('public.qor_environment_change_id_seq', 4, true);
SELECT pg_catalog.setval('public.qor_environment_rowid_seq', 9, true);
SELECT pg_catalog.setval('public.qor_event_seq_seq', 23, true);
SELECT pg_catalog.setval('public.qor_moved_id_seq', 1, false);
SELECT pg_catalog.setval('public.qor_operation_seq_seq', 23, true);
SELECT pg_catalog.setval('public.qor_record_due_id_seq', 17, true);
SELECT pg_catalog.setval('public.qor_removal_id_seq', 1, false);
SELECT pg_catalog.setval('public.qor_request_rowid_seq', 2, true);
ALTER TABLE ONLY public.qor_backup
    ADD CONSTRAINT qor_backup_pkey PRIMARY KEY (seq);
ALTER TABLE ONLY public.qor_collector_position
    ADD CONSTRAINT qor_collector_position_pkey PRIMARY KEY (machine, collector);
ALTER TABLE ONLY public.qor_commit
    ADD CONSTRAINT qor_commit_pkey PRIMARY KEY (token);
ALTER TABLE ONLY public.qor_count_due
    ADD CONSTRAINT qor_count_due_pkey PRIMARY KEY (id);
ALTER TABLE ONLY public.qor_ended_session
    ADD CONSTRAINT qor_ended_session_pkey PRIMARY KEY (id);
ALTER TABLE ONLY public.qor_environment_address
    ADD CONSTRAINT qor_environment_address_pkey PRIMARY KEY (eid, source, "position");
ALTER TABLE ONLY public.qor_environment_change
    ADD CONSTRAINT qor_environment_change_pkey PRIMARY KEY (id);
ALTER TABLE ONLY public.qor_environment
    ADD CONSTRAINT qor_environment_pkey PRIMARY KEY (eid);
ALTER TABLE ONLY public.qor_environment
    ADD CONSTRAINT qor_environment_rowid_key UNIQUE (rowid);
ALTER TABLE ONLY public.qor_event_count
    ADD CONSTRAINT qor_event_count_pkey PRIMARY KEY (scope, level, bucket);
ALTER TABLE ONLY public.qor_event
    ADD CONSTRAINT qor_event_pkey PRIMARY KEY (seq);
ALTER TABLE ONLY public.qor_forward_position
    ADD CONSTRAINT qor_forward_position_pkey PRIMARY KEY (target, server);
ALTER TABLE ONLY public.qor_forward_refused
    ADD CONSTRAINT qor_forward_refused_pkey PRIMARY KEY (target, server, kind, id);
ALTER TABLE ONLY public.qor_forward_stream
    ADD CONSTRAINT qor_forward_stream_pkey PRIMARY KEY (id);
ALTER TABLE ONLY public.qor_handover
    ADD CONSTRAINT qor_handover_pkey PRIMARY KEY (source);
ALTER TABLE ONLY public.qor_identity_environment
    ADD CONSTRAINT qor_identity_environment_pkey PRIMARY KEY (name, "position");
ALTER TABLE ONLY public.qor_identity
    ADD CONSTRAINT qor_identity_kind_subject_key UNIQUE (kind, subject);
ALTER TABLE ONLY public.qor_identity
    ADD CONSTRAINT qor_identity_pkey PRIMARY KEY (name);
ALTER TABLE ONLY public.qor_moved
    ADD CONSTRAINT qor_moved_pkey PRIMARY KEY (id);
ALTER TABLE ONLY public.qor_operation_count
    ADD CONSTRAINT qor_operation_count_pkey PRIMARY KEY (scope, level, bucket);
ALTER TABLE ONLY public.qor_operation_environment
    ADD CONSTRAINT qor_operation_environment_pkey PRIMARY KEY (operation, eid);
ALTER TABLE ONLY public.qor_operation
    ADD CONSTRAINT qor_operation_pkey PRIMARY KEY (seq);
ALTER TABLE ONLY public.qor_record_change
    ADD CONSTRAINT qor_record_change_pkey PRIMARY KEY (n);
ALTER TABLE ONLY public.qor_record_due
    ADD CONSTRAINT qor_record_due_pkey PRIMARY KEY (id);
ALTER TABLE ONLY public.qor_removal
    ADD CONSTRAINT qor_removal_pkey PRIMARY KEY (id);
ALTER TABLE ONLY public.qor_request
    ADD CONSTRAINT qor_request_pkey PRIMARY KEY (key);
ALTER TABLE ONLY public.qor_request
    ADD CONSTRAINT qor_request_rowid_key UNIQUE (rowid);
ALTER TABLE ONLY public.qor_schema_version
    ADD CONSTRAINT qor_schema_version_pkey PRIMARY KEY (version);
ALTER TABLE ONLY public.qor_secret
    ADD CONSTRAINT qor_secret_pkey PRIMARY KEY (purpose);
ALTER TABLE ONLY public.qor_server
    ADD CONSTRAINT qor_server_number_key UNIQUE (number);
ALTER TABLE ONLY public.qor_server
    ADD CONSTRAINT qor_server_pkey PRIMARY KEY (name);
ALTER TABLE ONLY public.qor_token
    ADD CONSTRAINT qor_token_pkey PRIMARY KEY (digest);
ALTER TABLE ONLY public.qor_touched_server
    ADD CONSTRAINT qor_touched_server_pkey PRIMARY KEY (eid, server);
ALTER TABLE ONLY public.qor_unreadable_document
    ADD CONSTRAINT qor_unreadable_document_pkey PRIMARY KEY (source, part, record);
CREATE INDEX qor_backup_eid ON public.qor_backup USING btree (eid NULLS FIRST, "time" NULLS FIRST, seq);
CREATE UNIQUE INDEX qor_backup_id ON public.qor_backup USING btree (id NULLS FIRST);
CREATE INDEX qor_backup_storage ON public.qor_backup USING btree (storage_eid NULLS FIRST, "time" NULLS FIRST, seq);
CREATE INDEX qor_backup_time ON public.qor_backup USING btree ("time" NULLS FIRST, seq);
CREATE INDEX qor_commit_time ON public.qor_commit USING btree ("time");
CREATE INDEX qor_environment_address_address ON public.qor_environment_address USING btree (address NULLS FIRST);
CREATE INDEX qor_environment_change_n ON public.qor_environment_change USING btree (n NULLS FIRST);
CREATE INDEX qor_environment_eid ON public.qor_environment USING btree (eid NULLS FIRST);
CREATE INDEX qor_environment_hostname ON public.qor_environment USING btree (hostname NULLS FIRST);
CREATE INDEX qor_environment_parent ON public.qor_environment USING btree (parent_eid NULLS FIRST);
CREATE INDEX qor_event_category ON public.qor_event USING btree (category NULLS FIRST, "time" NULLS FIRST, seq);
CREATE INDEX qor_event_category_eid ON public.qor_event USING btree (category NULLS FIRST, eid NULLS FIRST, "time" NULLS FIRST, seq);
CREATE INDEX qor_event_eid ON public.qor_event USING btree (eid NULLS FIRST, "time" NULLS FIRST, seq);
CREATE INDEX qor_event_id ON public.qor_event USING btree (seq NULLS FIRST);
CREATE INDEX qor_event_time ON public.qor_event USING btree ("time" NULLS FIRST, seq);
CREATE UNIQUE INDEX qor_event_uid ON public.qor_event USING btree (uid) WHERE (uid IS NOT NULL);
CREATE INDEX qor_operation_eid ON public.qor_operation USING btree (eid NULLS FIRST, "time" NULLS FIRST, seq);
CREATE INDEX qor_operation_environment_pair ON public.qor_operation_environment USING btree (eid NULLS FIRST, own NULLS FIRST, "time" NULLS FIRST, operation) WHERE (eid <> own);
CREATE INDEX qor_operation_environment_touched ON public.qor_operation_environment USING btree (eid NULLS FIRST, "time" NULLS FIRST, operation) WHERE (eid IS DISTINCT FROM own);
CREATE UNIQUE INDEX qor_operation_id ON public.qor_operation USING btree (id NULLS FIRST);
CREATE INDEX qor_operation_time ON public.qor_operation USING btree ("time" NULLS FIRST, seq);
CREATE INDEX qor_removal_server ON public.qor_removal USING btree (server, id);
CREATE INDEX qor_request_time ON public.qor_request USING btree ("time");
CREATE INDEX qor_token_name ON public.qor_token USING btree (name);
CREATE TRIGGER qor_backup_documents_removed AFTER DELETE ON public.qor_backup REFERENCING OLD TABLE AS gone FOR EACH STATEMENT EXECUTE FUNCTION public.qor_backup_documents();
CREATE TRIGGER qor_backup_documents_replaced AFTER UPDATE ON public.qor_backup REFERENCING OLD TABLE AS gone NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_backup_documents();
CREATE TRIGGER qor_backup_emptied AFTER TRUNCATE ON public.qor_backup FOR EACH STATEMENT EXECUTE FUNCTION public.qor_backup_emptied();
CREATE TRIGGER qor_backup_noted AFTER INSERT ON public.qor_backup REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_record_note('3');
CREATE TRIGGER qor_backup_noted_again AFTER UPDATE ON public.qor_backup REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_record_note('3');
CREATE CONSTRAINT TRIGGER qor_count_due_told AFTER INSERT ON public.qor_count_due DEFERRABLE INITIALLY DEFERRED FOR EACH ROW EXECUTE FUNCTION public.qor_count_due_last();
CREATE TRIGGER qor_ended_session_came AFTER INSERT ON public.qor_ended_session FOR EACH STATEMENT EXECUTE FUNCTION public.qor_identity_note();
CREATE TRIGGER qor_environment_came AFTER INSERT ON public.qor_environment REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_environment_note();
CREATE CONSTRAINT TRIGGER qor_environment_change_numbered AFTER INSERT ON public.qor_environment_change DEFERRABLE INITIALLY DEFERRED FOR EACH ROW EXECUTE FUNCTION public.qor_change_number();
CREATE TRIGGER qor_environment_changed AFTER UPDATE ON public.qor_environment REFERENCING OLD TABLE AS gone NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_environment_note();
CREATE TRIGGER qor_environment_cleared AFTER TRUNCATE ON public.qor_environment FOR EACH STATEMENT EXECUTE FUNCTION public.qor_environment_note();
CREATE TRIGGER qor_environment_documents_removed AFTER DELETE ON public.qor_environment REFERENCING OLD TABLE AS gone FOR EACH STATEMENT EXECUTE FUNCTION public.qor_environment_documents();
CREATE TRIGGER qor_environment_documents_replaced AFTER UPDATE ON public.qor_environment REFERENCING OLD TABLE AS gone NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_environment_documents();
CREATE TRIGGER qor_environment_emptied AFTER TRUNCATE ON public.qor_environment FOR EACH STATEMENT EXECUTE FUNCTION public.qor_environment_emptied();
CREATE TRIGGER qor_environment_gone AFTER DELETE ON public.qor_environment REFERENCING OLD TABLE AS gone FOR EACH STATEMENT EXECUTE FUNCTION public.qor_environment_note();
CREATE TRIGGER qor_environment_noted AFTER INSERT ON public.qor_environment REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_record_note('0');
CREATE TRIGGER qor_environment_noted_again AFTER UPDATE ON public.qor_environment REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_record_note('0');
CREATE TRIGGER qor_event_came AFTER INSERT ON public.qor_event REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_event_tell();
CREATE TRIGGER qor_event_changed AFTER UPDATE ON public.qor_event REFERENCING OLD TABLE AS gone NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_event_tell();
CREATE TRIGGER qor_event_documents_removed AFTER DELETE ON public.qor_event REFERENCING OLD TABLE AS gone FOR EACH STATEMENT EXECUTE FUNCTION public.qor_event_documents();
CREATE TRIGGER qor_event_documents_replaced AFTER UPDATE ON public.qor_event REFERENCING OLD TABLE AS gone NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_event_documents();
CREATE TRIGGER qor_event_emptied AFTER TRUNCATE ON public.qor_event FOR EACH STATEMENT EXECUTE FUNCTION public.qor_event_emptied();
CREATE TRIGGER qor_event_emptying BEFORE TRUNCATE ON public.qor_event FOR EACH STATEMENT EXECUTE FUNCTION public.qor_count_due_first();
CREATE TRIGGER qor_event_gone AFTER DELETE ON public.qor_event REFERENCING OLD TABLE AS gone FOR EACH STATEMENT EXECUTE FUNCTION public.qor_event_tell();
CREATE TRIGGER qor_event_noted AFTER INSERT ON public.qor_event REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_record_note('2');
CREATE TRIGGER qor_event_noted_again AFTER UPDATE ON public.qor_event REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_record_note('2');
CREATE TRIGGER qor_identity_changed AFTER INSERT OR DELETE OR UPDATE OR TRUNCATE ON public.qor_identity FOR EACH STATEMENT EXECUTE FUNCTION public.qor_identity_note();
CREATE TRIGGER qor_identity_environment_changed AFTER INSERT OR DELETE OR UPDATE OR TRUNCATE ON public.qor_identity_environment FOR EACH STATEMENT EXECUTE FUNCTION public.qor_identity_note();
CREATE TRIGGER qor_operation_came AFTER INSERT ON public.qor_operation REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_operation_tell();
CREATE TRIGGER qor_operation_changed AFTER UPDATE ON public.qor_operation REFERENCING OLD TABLE AS gone NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_operation_tell();
CREATE TRIGGER qor_operation_documents_removed AFTER DELETE ON public.qor_operation REFERENCING OLD TABLE AS gone FOR EACH STATEMENT EXECUTE FUNCTION public.qor_operation_documents();
CREATE TRIGGER qor_operation_documents_replaced AFTER UPDATE ON public.qor_operation REFERENCING OLD TABLE AS gone NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_operation_documents();
CREATE TRIGGER qor_operation_emptied AFTER TRUNCATE ON public.qor_operation FOR EACH STATEMENT EXECUTE FUNCTION public.qor_operation_emptied();
CREATE TRIGGER qor_operation_emptying BEFORE TRUNCATE ON public.qor_operation FOR EACH STATEMENT EXECUTE FUNCTION public.qor_count_due_first();
CREATE TRIGGER qor_operation_environment_emptying BEFORE TRUNCATE ON public.qor_operation_environment FOR EACH STATEMENT EXECUTE FUNCTION public.qor_count_due_first();
CREATE TRIGGER qor_operation_gone AFTER DELETE ON public.qor_operation REFERENCING OLD TABLE AS gone FOR EACH STATEMENT EXECUTE FUNCTION public.qor_operation_tell();
CREATE TRIGGER qor_operation_noted AFTER INSERT ON public.qor_operation REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_record_note('1');
CREATE TRIGGER qor_operation_noted_again AFTER UPDATE ON public.qor_operation REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_record_note('1');
CREATE CONSTRAINT TRIGGER qor_record_due_told AFTER INSERT ON public.qor_record_due DEFERRABLE INITIALLY DEFERRED FOR EACH ROW EXECUTE FUNCTION public.qor_record_due_last();
CREATE TRIGGER qor_token_changed AFTER INSERT OR DELETE OR UPDATE OF digest, name, created, expires OR TRUNCATE ON public.qor_token FOR EACH STATEMENT EXECUTE FUNCTION public.qor_identity_note();
CREATE TRIGGER qor_touched_came AFTER INSERT ON public.qor_operation_environment REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_touched_tell();
CREATE TRIGGER qor_touched_changed AFTER UPDATE ON public.qor_operation_environment REFERENCING OLD TABLE AS gone NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION public.qor_touched_tell();
CREATE TRIGGER qor_touched_emptied AFTER TRUNCATE ON public.qor_operation_environment FOR EACH STATEMENT EXECUTE FUNCTION public.qor_touched_emptied();
CREATE TRIGGER qor_touched_gone AFTER DELETE ON public.qor_operation_environment REFERENCING OLD TABLE AS gone FOR EACH STATEMENT EXECUTE FUNCTION public.qor_touched_tell();
ALTER TABLE ONLY public.qor_environment_address
    ADD CONSTRAINT qor_environment_address_eid_fkey FOREIGN KEY (eid) REFERENCES public.qor_environment(eid) ON DELETE CASCADE;
ALTER TABLE ONLY public.qor_operation_environment
    ADD CONSTRAINT qor_operation_environment_operation_fkey FOREIGN KEY (operation) REFERENCES public.qor_operation(seq) ON UPDATE CASCADE ON DELETE CASCADE;
