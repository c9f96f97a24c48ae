SELECT "vPeople"."name" FROM "vPeople" ORDER BY "vPeople"."born", "vPeople"."id" DESC LIMIT 20 OFFSET 40
