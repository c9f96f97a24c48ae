SELECT "vPeople"."id" FROM "vPeople" WHERE "vPeople"."id" IN (SELECT "vNames"."id" FROM "vNames" WHERE "vNames"."guid" = "vPeople"."guid")
