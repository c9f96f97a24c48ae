SELECT "vPeople"."id" FROM "vPeople" WHERE "vPeople"."id" IN (SELECT "vNames"."id" FROM "vNames" WHERE "vNames"."name" LIKE 'a!%%' ESCAPE '!') OR "vPeople"."id" IN ('it''s')
