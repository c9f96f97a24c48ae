SELECT "vPeople"."name" FROM "vPeople" ORDER BY "vPeople"."born" NULLS FIRST, "vPeople"."id" DESC NULLS LAST LIMIT 20 OFFSET 40
